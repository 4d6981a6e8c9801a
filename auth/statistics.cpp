// SPDX-License-Identifier: Apache-2.0
#include "auth/statistics.h"

#include <algorithm>
#include <limits>

#include "backend/base/log.h"
#include "backend/base/settings.h"

vorn::ReaderWriterLock gStatisticsLock;

// An interval can be as large as its type: the sum then stays at the end of time.
void BindStatistics::scheduleNext() {
    std::int64_t next = 0;
    if (__builtin_add_overflow(static_cast<std::int64_t>(m_clock()), gLogInterval, &next))
        next = std::numeric_limits<std::int64_t>::max();
    m_nextLogTime = next;
}

void BindStatistics::startOnce() {
    std::call_once(m_started, [this] {
        const vorn::WriterLock guard(m_lock);
        m_counters = {};
        scheduleNext();
    });
}

void BindStatistics::countBind() {
    if (gLogInterval == 0) return;
    const vorn::WriterLock guard(m_lock);
    ++m_counters.total;
}

void BindStatistics::countCacheSuccess() {
    if (gLogInterval == 0) return;
    const vorn::WriterLock guard(m_lock);
    ++m_counters.fromCache;
}

void BindStatistics::countAgentSuccess(std::int64_t start, std::int64_t end) {
    if (gLogInterval == 0) return;
    const auto milliseconds = static_cast<std::uint32_t>(std::max<std::int64_t>(end - start, 0) / 1000);
    const vorn::WriterLock guard(m_lock);
    const std::uint32_t successes = m_counters.fromAgent++;
    // The count wraps to 0 after its largest value: that one success has no mean.
    if (m_counters.fromAgent == 0) return;
    m_counters.averageMilliseconds =
        (milliseconds + successes * m_counters.averageMilliseconds) / m_counters.fromAgent;
}

void BindStatistics::logWhenDue() {
    if (gLogInterval == 0 || m_nextLogTime > m_clock()) return;
    const vorn::WriterLock guard(m_lock);
    if (m_nextLogTime > m_clock()) return;  // another bind has written the line meanwhile
    JPrintf(
        "auth total: %u, success from cache: %u, success from vexagent: %u, "
        "success from vexagent average time: %ums, auth failed: %u",
        m_counters.total, m_counters.fromCache, m_counters.fromAgent, m_counters.averageMilliseconds,
        m_counters.total - m_counters.fromCache - m_counters.fromAgent);
    scheduleNext();
}

BindStatistics::Counters BindStatistics::counters() {
    const vorn::ReaderLock guard(m_lock);
    return m_counters;
}

void BindStatistics::setCounters(const Counters& counters) {
    const vorn::WriterLock guard(m_lock);
    m_counters = counters;
}
