// SPDX-License-Identifier: Apache-2.0
// A thread for what is to be done from time to time.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace vexagent {

// Safe for several threads.
class Housekeeper {
  public:
    // Does the work at once, and again each time that the pause is over or it is woken.
    Housekeeper(std::chrono::milliseconds pause, std::function<void()> work);
    // The work is over then.
    ~Housekeeper();
    Housekeeper(const Housekeeper&) = delete;
    Housekeeper& operator=(const Housekeeper&) = delete;

    // There is something new to do.
    void wake();

  private:
    void run();

    const std::chrono::milliseconds m_pause;
    const std::function<void()> m_work;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_stopping = false;  // guarded by m_mutex, as the next
    bool m_woken = false;
    std::thread m_thread;
};

}  // namespace vexagent
