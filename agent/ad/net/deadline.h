// A moment by which something must be over.
#pragma once

#include <algorithm>
#include <chrono>

namespace vexagent {

using Moment = std::chrono::steady_clock::time_point;
using std::chrono::milliseconds;

inline Moment now() {
    return std::chrono::steady_clock::now();
}

class Deadline {
  public:
    explicit Deadline(Moment end) : Deadline(now(), end) {}
    static Deadline in(milliseconds time) { return Deadline(now() + time); }

    // When the request began whose time this is.
    Moment begin() const { return m_begin; }
    Moment end() const { return m_end; }
    bool passed() const { return now() >= m_end; }

    // What is left, at least 0; rounded up, so that waiting for it reaches the end.
    milliseconds left() const {
        return std::max(milliseconds(0), std::chrono::ceil<milliseconds>(m_end - now()));
    }

    // Never more than a part of what is left, so that several attempts have their time.
    milliseconds share(milliseconds most, int part) const { return std::min(most, left() / part); }

    // This deadline, or an earlier one.
    Deadline atMost(milliseconds time) const { return {m_begin, std::min(m_end, now() + time)}; }

  private:
    Deadline(Moment begin, Moment end) : m_begin(begin), m_end(end) {}

    Moment m_begin;
    Moment m_end;
};

}  // namespace vexagent
