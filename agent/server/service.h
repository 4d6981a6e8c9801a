// SPDX-License-Identifier: Apache-2.0
// From a request to its answer.
//
// The service knows the clients by the process that the socket's peer
// credentials name, and keeps their open searches. It does no I/O of its own.
// Safe for several threads.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "agent/directory/directory.h"
#include "agent/server/frames.h"
#include "agent/server/open_searches.h"
#include "agent/server/pool.h"
#include "vorn/clock.h"

namespace vexagent {

class Service {
  public:
    using IdSource = OpenSearches::IdSource;

    // The directory and the clock of moments outlive the service.
    Service(Directory& directory, vorn::Clock clock, IdSource newId = randomId,
            const vorn::SteadyClock& moments = vorn::systemSteadyClock());

    // A connection of the process was accepted or has ended. With the last one its
    // searches end.
    void connected(const Client& client) { m_searches.connected(client); }
    void disconnected(const Client& client) { m_searches.disconnected(client); }

    // Whether a request is worked on at once or behind others like it.
    Lane lane(const vex::wire::Request& request) const;

    // The response's frame; nothing for a request that is not answered. Throws nothing but
    // std::bad_alloc, when there is no memory even to say so: what the client was not told
    // of does not stay open.
    std::optional<Bytes> handle(const Client& client, const vex::wire::Request& request);

    // Whether the request is of a kind that this agent knows.
    static bool isKnown(const vex::wire::Request& request);

    // Ends a search that the client will not learn of, or ask for again.
    void closeSearch(const Client& client, std::uint64_t id) { m_searches.close(client, id); }

    // Ends the searches that nobody has asked for in a long time.
    void expireSearches() { m_searches.expire(); }

    std::size_t openSearches() const { return m_searches.count(); }

    // One line: requests served by kind, failures, open searches, clients.
    std::string statistics() const;

  private:
    using Guids = flatbuffers::Vector<flatbuffers::Offset<flatbuffers::String>>;

    bool isQuick(const vex::wire::SearchOpen& search) const;
    Answer answerTo(const Client& client, const vex::wire::Request& request) noexcept;
    Bytes frameOf(const Client& client, std::uint64_t id, Answer answer);
    Answer dispatch(const Client& client, const vex::wire::Request& request);
    Answer openSearch(const Client& client, const vex::wire::Request& request);
    Answer continueSearch(const Client& client, std::uint64_t id);
    Answer fetch(const vex::wire::Request& request);
    Answer lookup(const vex::wire::Request& request);
    void lookUpAhead(const Guids& guids, const View& view, std::vector<Object>& objects);
    Answer authenticate(const Client& client, const vex::wire::Request& request);
    Answer changePassword(const Client& client, const vex::wire::Request& request);
    Answer listNames();
    Answer health();

    void logRequest(const Client& client, const vex::wire::Request& request, const Answer& answer,
                    long micros) noexcept;

    static constexpr std::size_t kKinds = 10;

    Directory& m_directory;
    const vorn::SteadyClock& m_moments;
    OpenSearches m_searches;

    std::array<std::atomic<std::uint64_t>, kKinds> m_served{};
    std::atomic<std::uint64_t> m_failed{0};
};

}  // namespace vexagent
