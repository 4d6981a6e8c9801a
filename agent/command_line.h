// SPDX-License-Identifier: Apache-2.0
// The words that the agent is started with.
#pragma once

#include <string>

namespace vexagent {

constexpr int kBadUsage = 2;  // the exit status of a mistake in them, or in the settings

struct Options {
    std::string config;
    bool check = false;
};

// Ends the process for --help, --version and mistakes. words is as main is given it.
Options parseOptions(int count, char** words);

}  // namespace vexagent
