// SPDX-License-Identifier: Apache-2.0
// Whether this host is set up for its domain, in plain words.
#pragma once

#include <string>

#include "agent/ad/options.h"

namespace vexagent {

// Checks the keytab, or the service account; how the controllers are found; every
// controller and its clock; that the agent is let in; what the domain holds; and
// the zone, unless its DN is empty. The report has a line for each, which begins
// with "ok: " or "wrong: "; a wrong one is followed by "   do: " and what to do.
// True when nothing is wrong. Changes this process's environment, as AdDirectory
// does.
bool checkDomain(const AdOptions& options, const std::string& zone, std::string& report);

}  // namespace vexagent
