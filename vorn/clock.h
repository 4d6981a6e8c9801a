// SPDX-License-Identifier: Apache-2.0
// The time, passed in where a test wants to choose it. Nothing but this reads it.
#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>

namespace vorn {

// Gives the current calendar time in seconds; the default is time(NULL).
using Clock = std::time_t (*)();

inline std::time_t systemTime() {
    return std::time(nullptr);
}

// The calendar time in microseconds.
std::int64_t systemMicroseconds();

// A point on the clock that nobody sets: for how long things take, never for dates.
using Moment = std::chrono::steady_clock::time_point;

// Tells the moment. Safe for several threads.
class SteadyClock {
  public:
    SteadyClock() = default;
    SteadyClock(const SteadyClock&) = delete;
    SteadyClock& operator=(const SteadyClock&) = delete;
    virtual ~SteadyClock() = default;
    virtual Moment now() const = 0;
};

// The system's. Lives as long as the process.
const SteadyClock& systemSteadyClock();

}  // namespace vorn
