// SPDX-License-Identifier: Apache-2.0
// A moment by which something must be over.
#pragma once

#include <algorithm>
#include <chrono>

#include "vorn/clock.h"

namespace vorn {

// A value: copied freely. The clock outlives it and its copies. Safe for several threads
// as long as nobody assigns to it.
class Deadline {
  public:
    using milliseconds = std::chrono::milliseconds;

    // That much time from now on.
    Deadline(const SteadyClock& clock, milliseconds time) : Deadline(clock, clock.now(), time) {}
    Deadline(const SteadyClock& clock, Moment end) : Deadline(clock, clock.now(), end) {}

    const SteadyClock& clock() const { return *m_clock; }
    // When the request began whose time this is.
    Moment begin() const { return m_begin; }
    Moment end() const { return m_end; }
    bool passed() const { return m_clock->now() >= m_end; }

    // What is left, at least 0; rounded up, so that waiting for it reaches the end.
    milliseconds left() const {
        return std::max(milliseconds(0), std::chrono::ceil<milliseconds>(m_end - m_clock->now()));
    }
    // Never more than a part of what is left, so that several attempts have their time.
    milliseconds share(milliseconds most, int part) const { return std::min(most, left() / part); }

    // This deadline, or an earlier one, of the same request.
    Deadline atMost(milliseconds time) const {
        return {*m_clock, m_begin, std::min(m_end, m_clock->now() + time)};
    }

  private:
    Deadline(const SteadyClock& clock, Moment begin, milliseconds time)
        : Deadline(clock, begin, begin + time) {}
    Deadline(const SteadyClock& clock, Moment begin, Moment end)
        : m_clock(&clock), m_begin(begin), m_end(end) {}

    const SteadyClock* m_clock;
    Moment m_begin;
    Moment m_end;
};

}  // namespace vorn
