// SPDX-License-Identifier: Apache-2.0
// The searches that clients have left open.
#pragma once

#include <sys/types.h>

#include <compare>
#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <memory>

#include "agent/directory/directory.h"
#include "vorn/clock.h"
#include "vorn/guarded.h"

namespace vexagent {

// A client process.
struct Client {
    pid_t pid = 0;
    uid_t uid = 0;
    auto operator<=>(const Client&) const = default;  // NOLINT(modernize-use-nullptr): a false alarm
};

// A random number that is not 0: a search's name, which a client cannot guess.
std::uint64_t randomId();

// Each belongs to a client process, as long as that has a connection. Safe for several
// threads.
class OpenSearches {
  public:
    using IdSource = std::function<std::uint64_t()>;

    OpenSearches(vorn::Clock clock, IdSource newId) : m_clock(clock), m_newId(std::move(newId)) {}

    // A connection of the process was accepted or has ended. With the last one its
    // searches end.
    void connected(const Client& client);
    void disconnected(const Client& client);

    // Gives a search its name; 0 when the client has too many, or has gone.
    std::uint64_t keep(const Client& client, std::unique_ptr<Cursor> cursor);

    // The client's search of that name, for a thread that works on it; null for none.
    std::unique_ptr<Cursor> take(const Client& client, std::uint64_t id);
    // Gives it back, or ends it with null.
    void putBack(std::uint64_t id, std::unique_ptr<Cursor> cursor);

    void close(const Client& client, std::uint64_t id);

    // Ends those that nobody has asked for in a long time.
    void expire();

    std::size_t count() const { return m_state.lock()->searches.size(); }
    std::size_t clients() const { return m_state.lock()->clients.size(); }

  private:
    struct OpenSearch {
        Client client;
        std::unique_ptr<Cursor> cursor;  // null while a thread works on it
        std::time_t lastUsed = 0;
    };
    struct ClientState {
        int connections = 0;
        int searches = 0;
    };
    struct State {
        std::map<std::uint64_t, OpenSearch> searches;
        std::map<Client, ClientState> clients;

        void erase(std::map<std::uint64_t, OpenSearch>::iterator search);
    };

    const vorn::Clock m_clock;
    const IdSource m_newId;
    vorn::Guarded<State> m_state;
};

}  // namespace vexagent
