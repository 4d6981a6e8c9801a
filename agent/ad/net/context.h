// SPDX-License-Identifier: Apache-2.0
// What the domains of an agent share.
#pragma once

#include <functional>

#include "agent/ad/net/link.h"
#include "agent/ad/net/results.h"
#include "agent/ad/options.h"

namespace vexagent {

// All of it outlives every domain.
struct NetContext {
    const AdOptions& options;
    Connector& connector;
    const vorn::SteadyClock& clock;
    PageRule& pages;
    std::function<double()> random;  // a number from 0 up to, not including, 1

    Deadline within(milliseconds time) const { return {clock, time}; }
};

}  // namespace vexagent
