// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/peer.h"

#include "vorn/numbers.h"

namespace vexagent {
namespace {

struct Parts {
    std::string host;
    std::optional<std::string> port;  // unset where none is given
};

// "[address]" or "[address]:port".
std::optional<Parts> bracketed(const std::string& text, std::size_t bracket) {
    Parts parts{text.substr(1, bracket - 1), std::nullopt};
    const std::string rest = text.substr(bracket + 1);
    if (rest.empty()) return parts;
    if (rest[0] != ':') return std::nullopt;
    parts.port = rest.substr(1);
    return parts;
}

std::optional<Parts> split(const std::string& text) {
    const std::size_t bracket = text.find(']');
    if (text.starts_with('[') && bracket != std::string::npos) return bracketed(text, bracket);
    const std::size_t colon = text.find(':');
    // More than one: an address of IPv6 by itself.
    if (colon == std::string::npos || text.rfind(':') != colon) return Parts{text, std::nullopt};
    return Parts{text.substr(0, colon), text.substr(colon + 1)};
}

}  // namespace

std::optional<Peer> parsePeer(const std::string& text, std::uint16_t port) {
    const std::optional<Parts> parts = split(text);
    if (!parts || parts->host.empty() || parts->host.find_first_of(" \t/@") != std::string::npos)
        return std::nullopt;
    if (!parts->port) return Peer{parts->host, port};
    const auto given = vorn::parseNumber<std::uint16_t>(*parts->port);
    if (!given || *given == 0) return std::nullopt;
    return Peer{parts->host, *given};
}

}  // namespace vexagent
