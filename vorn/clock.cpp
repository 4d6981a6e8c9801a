// SPDX-License-Identifier: Apache-2.0
#include "vorn/clock.h"

namespace vorn {
namespace {

class SystemSteadyClock : public SteadyClock {
  public:
    Moment now() const override { return std::chrono::steady_clock::now(); }
};

}  // namespace

std::int64_t systemMicroseconds() {
    using std::chrono::microseconds;
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<microseconds>(sinceEpoch).count();
}

const SteadyClock& systemSteadyClock() {
    // Never destroyed: threads that outlive main may still ask for it.
    static const auto* const clock = new SystemSteadyClock;
    return *clock;
}

}  // namespace vorn
