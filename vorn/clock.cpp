#include "vorn/clock.h"

namespace vorn {
namespace {

class SystemSteadyClock : public SteadyClock {
  public:
    Moment now() const override { return std::chrono::steady_clock::now(); }
};

}  // namespace

const SteadyClock& systemSteadyClock() {
    // Never destroyed: threads that outlive main may still ask for it.
    static const auto* const clock = new SystemSteadyClock;
    return *clock;
}

}  // namespace vorn
