// SPDX-License-Identifier: Apache-2.0
#include "agent/server/pool.h"

#include <algorithm>

#include "vorn/signals_blocked.h"

namespace vexagent {

WorkerPool::WorkerPool(int threads) : m_slowLimit(std::max(1, threads - 1)) {
    const vorn::SignalsBlocked blocked;  // the new threads inherit it
    for (int i = 0; i < threads; ++i) m_threads.emplace_back([this] { run(); });
}

WorkerPool::~WorkerPool() {
    {
        const std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_work.notify_all();
    for (std::thread& thread : m_threads) thread.join();
}

void WorkerPool::post(Lane lane, Work work) {
    std::unique_lock lock(m_mutex);
    (lane == Lane::Quick ? m_quick : m_slow).push_back(std::move(work));
    const bool wake = lane == Lane::Quick || slowMayRun();
    lock.unlock();
    // Slow work above its limit is taken up by the thread that ends some; where that takes
    // quick work instead, by the thread that was woken for this.
    if (wake) m_work.notify_one();
}

bool WorkerPool::waitIdle(std::chrono::milliseconds time) {
    std::unique_lock lock(m_mutex);
    return m_idle.wait_for(lock, time, [this] { return isIdle(); });
}

bool WorkerPool::take(Lane& lane, Work& work) {
    std::unique_lock lock(m_mutex);
    m_work.wait(lock, [this] { return m_stopping || hasWork(); });
    if (m_stopping) return false;
    lane = m_quick.empty() ? Lane::Slow : Lane::Quick;
    std::deque<Work>& queue = lane == Lane::Quick ? m_quick : m_slow;
    work = std::move(queue.front());
    queue.pop_front();
    ++m_busy;
    if (lane == Lane::Slow) ++m_busySlow;
    return true;
}

void WorkerPool::run() {
    Lane lane = Lane::Quick;
    Work work;
    while (take(lane, work)) {
        work();
        work = nullptr;
        const std::lock_guard lock(m_mutex);
        --m_busy;
        if (lane == Lane::Slow) --m_busySlow;
        if (isIdle()) m_idle.notify_all();
    }
}

}  // namespace vexagent
