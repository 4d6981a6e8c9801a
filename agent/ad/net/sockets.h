// SPDX-License-Identifier: Apache-2.0
// TCP connections that are there in time or not at all.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "agent/ad/net/peer.h"
#include "vorn/deadline.h"
#include "vorn/descriptor.h"
#include "vorn/expected.h"

namespace vexagent {

// How long a controller gets to take a connection.
inline constexpr std::chrono::milliseconds kConnectTime{1000};

// A connected, blocking, close-on-exec socket, or the reason why there is none. The host's
// addresses are tried one after the other.
vorn::Expected<vorn::Descriptor, std::string> connectTo(const Peer& peer, const vorn::Deadline& deadline);

// Looks a host's addresses up while there is a name service: connectTo falls back on
// those known last when there is none.
void learnAddresses(const std::string& host, const vorn::Deadline& deadline);

// Writes all bytes, or reads exactly so many, before the deadline.
[[nodiscard]] bool writeAll(int socket, std::string_view bytes, const vorn::Deadline& deadline);
[[nodiscard]] std::optional<std::string> readExactly(int socket, std::size_t size,
                                                     const vorn::Deadline& deadline);

// Whether an idle socket has been closed by its peer, or has something to read
// that nobody asked for.
[[nodiscard]] bool isDisturbed(int socket);

}  // namespace vexagent
