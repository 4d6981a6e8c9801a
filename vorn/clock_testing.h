// SPDX-License-Identifier: Apache-2.0
// A clock that a test moves.
#pragma once

#include <atomic>

#include "vorn/clock.h"

namespace vorn::test {

// Stands still until it is moved. Does not begin at the epoch, which a value that was
// never set would look like.
class ManualClock : public SteadyClock {
  public:
    Moment now() const override { return m_now; }
    void advance(Moment::duration time) { m_now = m_now.load() + time; }
    void set(Moment moment) { m_now = moment; }

  private:
    std::atomic<Moment> m_now{Moment(std::chrono::hours(1))};
};

}  // namespace vorn::test
