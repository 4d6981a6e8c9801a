// SPDX-License-Identifier: Apache-2.0
// The threads that work on requests.
//
// There are two lanes. At most all threads but one work on the slow lane at the
// same time, so a slow search (and a password hash, slow by design) never keeps a
// quick look-up waiting: one thread is always left for it. With a single thread
// nothing can be kept free.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace vexagent {

enum class Lane { Quick, Slow };

class WorkerPool {
  public:
    using Work = std::function<void()>;

    explicit WorkerPool(int threads);
    // Waits for the work at hand; what is queued is dropped.
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    // Work is done in the order of its lane. It must not throw.
    void post(Lane lane, Work work);

    // Whether nothing is queued nor at work within the time.
    bool waitIdle(std::chrono::milliseconds time);

  private:
    void run();
    bool take(Lane& lane, Work& work);
    bool slowMayRun() const { return !m_slow.empty() && m_busySlow < m_slowLimit; }
    bool hasWork() const { return !m_quick.empty() || slowMayRun(); }
    bool isIdle() const { return m_busy == 0 && m_quick.empty() && m_slow.empty(); }

    const int m_slowLimit;
    std::mutex m_mutex;
    std::condition_variable m_work;  // for threads without work
    std::condition_variable m_idle;  // for waitIdle
    std::deque<Work> m_quick;        // guarded by m_mutex, as all below
    std::deque<Work> m_slow;
    int m_busy = 0;
    int m_busySlow = 0;
    bool m_stopping = false;
    std::vector<std::thread> m_threads;
};

}  // namespace vexagent
