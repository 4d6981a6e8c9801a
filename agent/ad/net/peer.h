// SPDX-License-Identifier: Apache-2.0
// Who is on the other side of a connection.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace vexagent {

// A host's name or address, and a port.
struct Peer {
    std::string host;
    std::uint16_t port = 0;
    auto operator<=>(const Peer&) const = default;  // NOLINT(modernize-use-nullptr): a false alarm
};

// "host", "host:port", "[address]:port"; nothing for text that is none. Without a port it is
// the one given.
std::optional<Peer> parsePeer(const std::string& text, std::uint16_t port);

}  // namespace vexagent
