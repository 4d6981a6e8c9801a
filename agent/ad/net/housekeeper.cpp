// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/housekeeper.h"

#include "vorn/signals_blocked.h"

namespace vexagent {

Housekeeper::Housekeeper(std::chrono::milliseconds pause, std::function<void()> work)
    : m_pause(pause), m_work(std::move(work)) {
    const vorn::SignalsBlocked blocked;
    m_thread = std::thread([this] { run(); });
}

Housekeeper::~Housekeeper() {
    {
        const std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_changed.notify_one();
    m_thread.join();
}

void Housekeeper::wake() {
    const std::lock_guard lock(m_mutex);
    m_woken = true;
    m_changed.notify_one();
}

void Housekeeper::run() {
    std::unique_lock lock(m_mutex);
    while (!m_stopping) {
        m_woken = false;
        lock.unlock();
        m_work();
        lock.lock();
        m_changed.wait_for(lock, m_pause, [this] { return m_stopping || m_woken; });
    }
}

}  // namespace vexagent
