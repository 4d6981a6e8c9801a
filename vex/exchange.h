// SPDX-License-Identifier: Apache-2.0
// One request and its answer.
#pragma once

#include "vex/pool.h"
#include "vex/protocol_generated.h"
#include "vex/request.h"

namespace vex {

// Whether the bytes are a response whose fields can be read, objects included:
// each is sound by itself (vex/object.h), and none counts twice. Takes time
// linear in their number.
bool isSoundResponse(std::span<const std::uint8_t> bytes);

// A request under way. While it lives, the answer can be read; then the
// connection that it borrowed is kept for others, unless the answer was none.
class Exchange {
  public:
    Exchange(const Endpoint& endpoint, const vorn::Deadline& deadline)
        : m_endpoint(endpoint), m_deadline(deadline) {}
    ~Exchange();
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;

    // Only the process that has answered another request may answer this one.
    void expectAgent(pid_t agent) { m_expectedAgent = agent; }

    // Sends the request and receives its answer; null when there is none, or none that says
    // how the request ended. A request that
    // has not reached the agent is tried on a new connection too. One that has reached it
    // is not sent again.
    const wire::Response* ask(const Request& request);

    // Sends a request that has no answer, if that takes no waiting; whether it was sent.
    bool tell(const Request& request);

    // The answer cannot be accepted: the connection is not used again.
    void reject() { m_inOrder = false; }

    pid_t agent() const { return m_connection->agent(); }

  private:
    bool send(const Request& request);
    void connect();
    bool isUsable();
    bool isRightAgent() const { return m_expectedAgent == 0 || agent() == m_expectedAgent; }
    void tellClosings();

    const Endpoint& m_endpoint;
    const vorn::Deadline& m_deadline;
    pid_t m_expectedAgent = 0;
    std::unique_ptr<Connection> m_connection;
    bool m_inOrder = false;
};

}  // namespace vex
