// TCP connections that are there in time or not at all.
#pragma once

#include <cstdint>
#include <string>

#include "agent/ad/net/deadline.h"
#include "vorn/descriptor.h"

namespace vexagent {

// A host's name or address, and a port.
struct Peer {
    std::string host;
    std::uint16_t port = 0;
    auto operator<=>(const Peer&) const = default;  // NOLINT(modernize-use-nullptr): a false alarm
};

// "host", "host:port", "[address]:port"; false for text that is none. Without a
// port it is the one given.
bool parsePeer(const std::string& text, std::uint16_t port, Peer& peer);

// A connected, blocking, close-on-exec socket; a negative descriptor and the
// reason otherwise. The host's addresses are tried one after the other.
vorn::Descriptor connectTo(const Peer& peer, const Deadline& deadline, std::string& reason);

// Looks a host's addresses up while there is a name service: connectTo falls back on
// those known last when there is none.
void learnAddresses(const std::string& host, const Deadline& deadline);

// Writes all bytes, or reads exactly so many, before the deadline.
bool writeAll(int socket, std::string_view bytes, const Deadline& deadline);
bool readExactly(int socket, std::size_t size, std::string& bytes, const Deadline& deadline);

// Whether an idle socket has been closed by its peer, or has something to read
// that nobody asked for.
bool isDisturbed(int socket);

}  // namespace vexagent
