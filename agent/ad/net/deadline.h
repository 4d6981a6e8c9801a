// The system's clock, for those that are not given one yet.
#pragma once

#include "vorn/deadline.h"

namespace vexagent {

using std::chrono::milliseconds;
using vorn::Deadline;
using vorn::Moment;

inline Moment now() {
    return vorn::systemSteadyClock().now();
}

inline Deadline within(milliseconds time) {
    return {vorn::systemSteadyClock(), time};
}

}  // namespace vexagent
