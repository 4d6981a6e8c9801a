// SPDX-License-Identifier: Apache-2.0
// What the service manager has handed over to this process, by systemd's protocol: the
// environment variable LISTEN_FDS says how many descriptors there are, from 3 on, and
// LISTEN_PID to whom they were handed.
#pragma once

#include <optional>

#include "vorn/descriptor.h"

namespace vexagent {

// The one descriptor; nothing when none was handed over to this process. The variables are
// gone afterwards. Programs that the process starts inherit nothing. Throws SocketError for
// more than one, or a number that is none. Tests name another descriptor to begin with.
std::optional<vorn::Descriptor> takeHandedOver(int first = 3);

}  // namespace vexagent
