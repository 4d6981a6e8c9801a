// SPDX-License-Identifier: Apache-2.0
#include "vex/socket.h"

#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <vector>

namespace vex {
namespace {

std::atomic<unsigned> forks{0};

// Lives as long as the process: a thread may still close its socket while
// static objects are destroyed.
struct OpenSockets {
    std::mutex lock;
    std::vector<int> descriptors;  // guarded by lock
};

OpenSockets& open() {
    static OpenSockets* const one = new OpenSockets;
    return *one;
}

void beforeFork() {
    open().lock.lock();
}
void afterForkInParent() {
    open().lock.unlock();
}

void afterForkInChild() {
    for (const int descriptor : open().descriptors) ::close(descriptor);
    open().descriptors.clear();
    forks.fetch_add(1, std::memory_order_relaxed);
    open().lock.unlock();
}

void watchForks() {
    static const int registered = ::pthread_atfork(beforeFork, afterForkInParent, afterForkInChild);
    (void)registered;
}

}  // namespace

std::mutex& forkLock() {
    return open().lock;
}

unsigned generation() {
    return forks.load(std::memory_order_relaxed);
}

std::size_t openSockets() {
    std::lock_guard guard(open().lock);
    return open().descriptors.size();
}

Socket::Socket() {
    watchForks();
    std::lock_guard guard(open().lock);
    enter(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

Socket::Socket(int descriptor) {
    watchForks();
    std::lock_guard guard(open().lock);
    enter(descriptor);
}

void Socket::enter(int descriptor) {
    m_generation = generation();
    m_descriptor = descriptor;
    if (descriptor >= 0) open().descriptors.push_back(descriptor);
}

Socket::~Socket() {
    if (m_descriptor < 0) return;
    std::lock_guard guard(open().lock);
    if (inherited()) return;  // closed already, and the number may be another file's by now
    std::erase(open().descriptors, m_descriptor);
    ::close(m_descriptor);
}

}  // namespace vex
