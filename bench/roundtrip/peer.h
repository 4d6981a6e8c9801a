// SPDX-License-Identifier: Apache-2.0
// Agents for comparison: processes that answer on a Unix socket and do nothing else.
#pragma once

#include <sys/types.h>

#include <string>

#include "vorn/descriptor.h"

namespace roundtrip {

// Frames as they go over the wire, with their length before them.
struct Frames {
    std::string request;
    std::string response;  // to the request; a wire::Response
};

enum class Answers {
    Bytes,     // as many bytes as the request has are answered with the response, unread
    Protocol,  // every request is answered with the response, under the request's id
};

// A child process that serves one connection after the other until this object ends.
class Peer {
  public:
    // On the processor of that number; a negative one chooses none. Throws std::system_error.
    Peer(std::string path, const Frames& frames, Answers answers, int processor);
    ~Peer();
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

  private:
    const std::string m_path;
    pid_t m_process = -1;
};

// A connection to such a socket, after the greeting.
vorn::Descriptor connectTo(const std::string& path);

// All of the bytes; false when the other side has gone.
bool sendAll(int descriptor, const std::string& bytes);
// So many bytes, into the buffer's beginning.
bool receiveAll(int descriptor, std::string* buffer, std::size_t size);

}  // namespace roundtrip
