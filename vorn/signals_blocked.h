// SPDX-License-Identifier: Apache-2.0
// A scope in which no signal is delivered to the calling thread.
#pragma once

#include <csignal>

namespace vorn {

// Blocks every signal and restores the thread's mask at the end. A thread starts
// with the mask of the one that makes it, so what is started in such a scope
// leaves signals to the threads that expect them.
class SignalsBlocked {
  public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &m_before);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

  private:
    sigset_t m_before;
};

}  // namespace vorn
