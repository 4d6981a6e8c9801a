// SPDX-License-Identifier: Apache-2.0
// The wire between libvex and vexagent: a Unix stream socket that carries frames.
//
// A frame is a 4-byte little-endian length and that many bytes. From client to
// agent the bytes are one wire::Request, from agent to client one
// wire::Response (vex/protocol.fbs), each a FlatBuffer with the file identifier
// below. Each side verifies a frame before it reads a field of it.
//
// On accepting a connection the agent sends one greeting of 8 bytes: the magic
// "VEXA" and the protocol version as a 4-byte little-endian number. A client
// that does not see its own version does not use the connection.
//
// A connection carries one request at a time: the answer (none for a
// SearchClose) comes before the next request is sent. An agent that gets a
// frame that it cannot accept answers VEX_REFUSED where the request's id could
// still be read, and closes the connection.
//
// A search belongs to the client process that opened it, as the socket's peer
// credentials tell it, so any of that process's connections may continue it. It
// ends with its last batch, with a SearchClose, when the process's last
// connection closes, or when it has not been asked for longer than
// kSearchIdleSeconds.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vex::wire {

inline constexpr char kMagic[4] = {'V', 'E', 'X', 'A'};
inline constexpr std::uint32_t kVersion = 1;
inline constexpr std::size_t kGreetingBytes = 8;
inline constexpr std::size_t kLengthBytes = 4;

inline constexpr char kRequestIdentifier[] = "VXQ1";
inline constexpr char kResponseIdentifier[] = "VXR1";

// Limits on what a peer may send. A request's texts together are no longer than a
// request may be, each counted as often as the request has it.
inline constexpr std::size_t kMaxRequestBytes = std::size_t{1} << 20;    // 1 MiB
inline constexpr std::size_t kMaxResponseBytes = std::size_t{64} << 20;  // 64 MiB
inline constexpr int kMaxDepth = 16;                                     // of nested tables
inline constexpr std::uint32_t kMaxTables = 4'000'000;                   // in one frame
inline constexpr std::size_t kMaxRequestedAttributes = 1024;
inline constexpr std::size_t kMaxOptions = 64;
inline constexpr std::size_t kMaxLookupsAhead = 128;  // GUIDs beside the one that is looked up
inline constexpr int kMaxSearchesPerClient = 20'000;  // open and not read to their end
inline constexpr int kSearchIdleSeconds = 3600;

// A batch is full when it holds this many objects or this many bytes.
inline constexpr std::size_t kBatchObjects = 256;
inline constexpr std::size_t kBatchBytes = std::size_t{256} << 10;  // 256 KiB

static_assert(1 + kMaxLookupsAhead <= kBatchObjects, "what a look-up brings is a batch");

}  // namespace vex::wire
