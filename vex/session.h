// SPDX-License-Identifier: Apache-2.0
// Sessions and searches. They are records of this process; the agent does not know them.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vex/exchange.h"
#include "vex/look_ahead.h"
#include "vex/object.h"
#include "vex/vex.h"
#include "vorn/guarded.h"

namespace vex {

// The error behind a failed call, as the agent told it.
struct ProtocolError {
    int system = 0;
    int code = 0;
    std::optional<std::string> text;
};

// Where the agent is, by the settings. Valid until the thread asks again. Throws what
// reading settings throws.
const Endpoint& configuredEndpoint();

}  // namespace vex

// A session lives until it is closed and its last search is closed too.
struct vexSession {
  public:
    explicit vexSession(vex::Endpoint place) : endpoint(std::move(place)) {}
    vexSession(const vexSession&) = delete;
    vexSession& operator=(const vexSession&) = delete;

    bool isOpen() const { return m_open.load(std::memory_order_acquire); }
    // False when it was closed before.
    bool close() { return m_open.exchange(false, std::memory_order_acq_rel); }

    bool setOption(int option, std::int32_t value);
    vex::Options options() const;

    // What a call came to. Each returns the code.
    vexCode succeeded(vexCode code = VEX_OK);
    vexCode notAnswered(vexCode code = VEX_BROKEN_SESSION);
    vexCode answered(const vex::wire::Response& response);

    // The error behind the last call: VEX_OK, or why there is none to tell.
    vexCode lastError(vex::ProtocolError& error) const;

    const vex::Endpoint endpoint;

    // For the thread that uses the session; its searches leave it alone.
    vex::LookAhead lookAhead;

    // What keeps it alive until it is closed.
    std::shared_ptr<vexSession> self;

  private:
    std::atomic<bool> m_open{true};

    struct LastError {
        vexCode state = VEX_NO_SUCH_ATTRIBUTE;  // what lastError returns
        vex::ProtocolError error{};             // for VEX_OK
    };

    // A search may work in one thread while its session is used in another.
    vorn::Guarded<vex::Options> m_options;
    vorn::Guarded<LastError> m_lastError;
};

namespace vex {

// An open search. The caller sees its public part.
class Search : public vexSearchHandle {
  public:
    explicit Search(std::shared_ptr<vexSession> owner);

    // Each answers as its namesake in vex/vex.h.
    vexCode open(const Request& request);
    vexCode next(vexObject** object);

    // Tells the agent, if it still holds a part of the search.
    void close();

  private:
    vexCode fetchBatch(const vorn::Deadline& deadline);
    vexCode ask(const Request& request, const vorn::Deadline& deadline);
    vexCode takeBatch(Exchange& exchange, const wire::Response& response);
    bool isHeldByAgent() const { return m_id != 0 && m_generation == generation(); }

    const std::shared_ptr<vexSession> m_owner;
    std::vector<ObjectRef> m_batch;
    std::size_t m_next = 0;
    std::int64_t m_received = 0;
    std::uint64_t m_id = 0;  // the agent's name for what follows; 0 when nothing does
    pid_t m_agent = 0;       // the agent that gave it
    unsigned m_generation;   // the process that it was given to
    vexCode m_end = VEX_OK;  // how the search failed, if it did
};

}  // namespace vex
