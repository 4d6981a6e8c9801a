// SPDX-License-Identifier: Apache-2.0
// Telling the service manager how the agent is, by systemd's notification
// protocol: one datagram of "NAME=VALUE" to the socket that the environment
// variable NOTIFY_SOCKET names (a path, or "@" and a name in the abstract name
// space).
#pragma once

#include <string>

namespace vexagent {

// Sends one state, such as "READY=1". Returns whether it was sent; without the
// variable there is nobody to tell.
bool notifyManager(const std::string& state);

}  // namespace vexagent
