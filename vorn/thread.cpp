// SPDX-License-Identifier: Apache-2.0
#include "vorn/thread.h"

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>

#include "vorn/clock.h"
#include "vorn/logger.h"
#include "vorn/signals_blocked.h"

namespace vorn {
namespace {

constexpr int kOwnPriority = 50;
constexpr int kMostPriority = 99;
constexpr std::size_t kLongestName = 15;  // what the kernel keeps

std::atomic<bool> threadsActive = false;

// Unwinds a thread that was killed. Not a std::exception, so that a body's
// handler of those lets it pass.
struct Killed {};

struct Task {
    std::string name;
    void* (*body)(void*);
    void* argument;
    int priority;
};

// In Linux the nice value is each thread's own. To be nicer is always allowed;
// where more is asked than the process may have, the thread stays as it is.
void applyPriority(int priority) {
    if (priority == kOwnPriority) return;
    const auto self = static_cast<id_t>(gettid());
    const int offset = (kOwnPriority - priority) * 2 / 5;
    setpriority(PRIO_PROCESS, self, getpriority(PRIO_PROCESS, self) + offset);
}

void reportException(const std::string& name, const char* what) {
    const auto logger = Logger::GetThreadPrivateLogger("vorn.thread");
    if (logger == nullptr) return;
    logger->log(Logger::kError, "thread", __LINE__, __func__, "thread %s ended by an exception: %s",
                name.c_str(), what);
}

// Nothing may leave a thread's first function. pthread_exit unwinds with an
// exception of the runtime's own, which must go on; it is no C++ object.
void run(const Task& task) {
    pthread_setname_np(pthread_self(), task.name.c_str());
    applyPriority(task.priority);
    try {
        task.body(task.argument);
    } catch (const Killed&) {
    } catch (const std::exception& failure) {
        reportException(task.name, failure.what());
    } catch (...) {
        if (std::current_exception() == nullptr) throw;
        reportException(task.name, "not a std::exception");
    }
}

Moment::duration sumOf(long seconds, long milliseconds, long microseconds, long nanoseconds) {
    // A hundred years at most, so that the sum cannot overflow.
    constexpr long kLongest = 3'000'000'000;
    const long whole = std::clamp(seconds, -kLongest, kLongest);
    const long thousandths = std::clamp(milliseconds, -kLongest, kLongest);
    const long millionths = std::clamp(microseconds, -kLongest, kLongest);
    return std::chrono::seconds(whole) + std::chrono::milliseconds(thousandths) +
           std::chrono::microseconds(millionths) +
           std::chrono::nanoseconds(std::clamp(nanoseconds, -kLongest, kLongest));
}

}  // namespace

// Shared by the object and the thread, which may outlive it when it destroys the
// object itself.
struct Thread::State {
    std::mutex lock;
    std::condition_variable killAsked;
    bool mustEnd = false;  // guarded by lock
    std::thread thread;    // touched by the owner only

    void sleepUntil(Moment deadline) {
        std::unique_lock guard(lock);
        if (killAsked.wait_until(guard, deadline, [this] { return mustEnd; })) throw Killed();
    }

    void askToEnd() {
        const std::lock_guard guard(lock);
        mustEnd = true;
        killAsked.notify_all();
    }

    static thread_local State* current;
};

thread_local Thread::State* Thread::State::current = nullptr;

void Thread::SetThreadsActive(bool active) {
    threadsActive = active;
}

Thread::Thread() = default;

Thread::~Thread() {
    kill();
    // Reached with a thread only when that very thread destroys the object.
    if (m_state != nullptr) m_state->thread.detach();
}

void Thread::start(const char* name, void* (*body)(void*), void* argument, int priority) {
    if (!threadsActive) throw std::logic_error("Thread::start before SetThreadsActive");
    if (m_state != nullptr) throw std::logic_error("Thread::start of a thread that was started before");
    if (priority < 0 || priority > kMostPriority) {
        throw std::system_error(EINVAL, std::generic_category(), "Thread::start: priority");
    }
    Task task = {std::string(name).substr(0, kLongestName), body, argument, priority};
    auto state = std::make_shared<State>();
    const SignalsBlocked blocked;
    state->thread = std::thread([state, task = std::move(task)] {
        State::current = state.get();
        run(task);
    });
    m_state = std::move(state);
}

void Thread::kill() {
    if (m_state == nullptr) return;
    m_state->askToEnd();
    if (m_state->thread.get_id() == std::this_thread::get_id()) return;
    m_state->thread.join();
    m_state = nullptr;
}

void Thread::sleep(long seconds, long milliseconds, long microseconds, long nanoseconds) {
    const auto deadline = systemSteadyClock().now() + sumOf(seconds, milliseconds, microseconds, nanoseconds);
    if (State::current != nullptr) return State::current->sleepUntil(deadline);
    std::this_thread::sleep_until(deadline);
}

int ConfigSignalHandler(int signal, void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    return sigaction(signal, &action, nullptr) == 0 ? 0 : errno;
}

}  // namespace vorn
