// The moment until which a call may take, on the monotonic clock.
#pragma once

#include <algorithm>
#include <chrono>

namespace vex {

using Milliseconds = std::chrono::milliseconds;

class Deadline {
  public:
    explicit Deadline(Milliseconds timeout) : m_end(std::chrono::steady_clock::now() + timeout) {}

    // What is left, rounded up, so that waiting for it does not end early; 0 when it is over.
    Milliseconds remaining() const {
        const auto left = std::chrono::ceil<Milliseconds>(m_end - std::chrono::steady_clock::now());
        return std::max(left, Milliseconds(0));
    }
    bool over() const { return remaining() == Milliseconds(0); }

  private:
    std::chrono::steady_clock::time_point m_end;
};

}  // namespace vex
