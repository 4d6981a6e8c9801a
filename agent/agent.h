// SPDX-License-Identifier: Apache-2.0
// The agent as a whole: its directory, its threads, its socket, its signals.
#pragma once

#include "agent/command_line.h"

namespace vexagent {

constexpr int kStartFailed = 1;  // the exit status when the directory or the socket cannot be had

// Checks, or serves until SIGTERM or SIGINT. The exit status; complaints go to standard error
// and to the log.
int start(const Options& options);

}  // namespace vexagent
