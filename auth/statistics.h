// SPDX-License-Identifier: Apache-2.0
// How many binds there were, who answered them, and how fast the agent was.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <mutex>

#include "vorn/clock.h"
#include "vorn/lock.h"

// The calendar time in microseconds.
using MicrosecondClock = std::int64_t (*)();

// Guards the process's bind statistics.
extern vorn::ReaderWriterLock gStatisticsLock;

// Counts binds from the first one until the process ends, and writes one line
// every gLogInterval seconds; while that is 0, nothing is counted and nothing
// written. Failed binds are what is left of the total. All arithmetic is unsigned,
// of 32 bits. Safe for use by several threads.
class BindStatistics {
  public:
    struct Counters {
        std::uint32_t total = 0;
        std::uint32_t fromCache = 0;
        std::uint32_t fromAgent = 0;
        std::uint32_t averageMilliseconds = 0;  // of a successful validation by the agent
    };

    BindStatistics(vorn::ReaderWriterLock& lock, vorn::Clock clock) : m_lock(lock), m_clock(clock) {}
    BindStatistics(const BindStatistics&) = delete;
    BindStatistics& operator=(const BindStatistics&) = delete;

    // Every bind calls it; the first one starts the period: counters at 0, the next
    // line one interval from now.
    void startOnce();

    void countBind();
    void countCacheSuccess();
    // start and end are in microseconds; an end before the start counts as 0.
    void countAgentSuccess(std::int64_t start, std::int64_t end);

    // Writes the line when its time has come.
    void logWhenDue();

    Counters counters();
    void setCounters(const Counters& counters);  // for tests of what many binds lead to

  private:
    void scheduleNext();

    vorn::ReaderWriterLock& m_lock;
    const vorn::Clock m_clock;
    std::once_flag m_started;
    std::atomic<std::int64_t> m_nextLogTime{0};  // looked at without the lock first; changed under it
    Counters m_counters;                         // guarded by m_lock
};
