// SPDX-License-Identifier: Apache-2.0
// A thread that can be ended from outside without leaving a lock held.
#pragma once

#include <memory>

namespace vorn {

class Thread {
  public:
    // Switches thread support on; start fails with std::logic_error before.
    static void SetThreadsActive(bool active);

    Thread();
    ~Thread();  // as kill
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // Runs body(argument) in a new thread with all signals blocked, so that
    // they go to the threads that expect them. name shows in ps, cut to 15
    // characters. priority is 0 to 99; 50 is the process's own, less is nicer;
    // more than the process may have leaves the thread at its own. An exception
    // that leaves the body ends the thread and is logged to channel "vorn.thread".
    // Throws std::system_error, and std::logic_error for a thread that was
    // started and not killed since.
    void start(const char* name, void* (*body)(void*), void* argument, int priority);

    // Asks the thread to end and waits for it. It ends at its next sleep, by an
    // exception that unwinds its stack, so every scoped lock is released; what
    // it does between two sleeps it finishes. That exception is no
    // std::exception: a body may catch those, but it must not swallow what it
    // catches with "...", nor sleep in a destructor. Does nothing for a thread
    // that was not started or has ended; called by the thread itself it only asks.
    void kill();

    // Sleeps for the sum of the arguments; ends the calling thread when kill was
    // asked for, also in the midst of the sleep. In a thread that was not
    // started here it only sleeps. A sum of 0 or less does not sleep, but ends
    // the thread too.
    static void sleep(long seconds, long milliseconds, long microseconds, long nanoseconds);

  private:
    struct State;
    std::shared_ptr<State> m_state;
};

// Installs a handler for a signal, with SA_RESTART, so that running system calls
// go on. Returns 0, or an errno value.
int ConfigSignalHandler(int signal, void (*handler)(int));

}  // namespace vorn
