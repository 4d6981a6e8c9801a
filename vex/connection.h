// SPDX-License-Identifier: Apache-2.0
// One connection to the agent: frames out, frames in, each within a deadline.
//
// Signals do not disturb it: an interrupted wait goes on, and a connection whose
// other side has gone raises no SIGPIPE. A connection on which anything went
// wrong is of no further use and is dropped by its owner.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "vex/socket.h"
#include "vorn/deadline.h"

namespace vex {

using Milliseconds = std::chrono::milliseconds;

// Where the agent is, and how long a call to it may take.
struct Endpoint {
    std::string path;
    Milliseconds timeout;

    // Of a call that begins now.
    vorn::Deadline deadline() const { return {vorn::systemSteadyClock(), timeout}; }
};

enum class Sent {
    Whole,
    Nothing,  // the agent got no byte of it
    Partly,   // the agent may have got it
};

class Connection {
  public:
    // Connects and reads the agent's greeting. Null when no agent of this
    // protocol answers within the deadline.
    static std::unique_ptr<Connection> open(const Endpoint& endpoint, const vorn::Deadline& deadline);

    // Connects. A greeting that does not come within the patience is left to whoever
    // sends the first request. Null when no agent listens, or it is one of another
    // protocol.
    static std::unique_ptr<Connection> reach(const Endpoint& endpoint, const vorn::Deadline& deadline,
                                             Milliseconds patience);

    // Over a connected socket that it takes, after the greeting.
    Connection(const Endpoint& endpoint, int descriptor)
        : m_path(endpoint.path), m_timeout(endpoint.timeout), m_socket(descriptor), m_greeted(true) {}

    // Whether the agent is still there and has sent nothing unasked. One system call.
    bool isQuiet() const;

    // Whether the agent has greeted, so that sending waits for nothing but room.
    bool greeted() const { return m_greeted; }

    // Waits for the greeting if it has not come yet. Whether it has.
    bool awaitGreeting(const vorn::Deadline& deadline) { return m_greeted || readGreeting(deadline); }

    // Sends the bytes as one frame, to an agent that has greeted by then.
    Sent send(std::span<const std::uint8_t> bytes, const vorn::Deadline& deadline);

    // Receives one frame; empty when none came that can be used, whatever the
    // reason. The bytes are aligned for reading and valid until the next call.
    std::span<const std::uint8_t> receive(const vorn::Deadline& deadline);

    // Gives back the memory of an unusually large answer.
    void shrink();

    const std::string& path() const { return m_path; }
    bool inherited() const { return m_socket.inherited(); }

    // The process that has greeted; 0 before.
    pid_t agent() const { return m_agent; }

  private:
    explicit Connection(const Endpoint& endpoint) : m_path(endpoint.path), m_timeout(endpoint.timeout) {}

    bool connect(const vorn::Deadline& deadline);
    bool readGreeting(const vorn::Deadline& deadline);
    bool wait(short events, const vorn::Deadline& deadline) const;
    std::size_t receiveFromSender(std::span<std::uint8_t> place, const vorn::Deadline& deadline);
    std::size_t receiveSome(std::span<std::uint8_t> place, const vorn::Deadline& deadline) const;
    ssize_t blockingReceive(std::span<std::uint8_t> place, const vorn::Deadline& deadline) const;
    void reserve(std::size_t bytes);

    const std::string m_path;
    const Milliseconds m_timeout;
    Socket m_socket;
    pid_t m_agent = 0;
    bool m_greeted = false;
    std::unique_ptr<std::uint8_t[]> m_buffer;
    std::size_t m_capacity = 0;
    std::size_t m_filled = 0;
};

}  // namespace vex
