// SPDX-License-Identifier: Apache-2.0
// Who holds how many of the agent's places.
//
// One process may hold three quarters of them, and one user seven eighths, so that
// neither keeps all others out. When no place is left for a newcomer, one is taken from
// somebody who holds at least as many as the newcomer does.
#pragma once

#include <cstddef>
#include <map>

#include "agent/server/service.h"

namespace vexagent {

class Shares {
  public:
    explicit Shares(std::size_t places);

    // Counts nothing when there is no memory to.
    void add(const Client& client);
    void remove(const Client& client);

    // Whether one place more may be given to the client as it is.
    bool hasPlaceFor(const Client& client) const;

    // Whether the newcomer may take a place of the holder's.
    bool mayTake(const Client& newcomer, const Client& holder) const;

    // Orders holders: whether a place is taken from one rather than from the other.
    bool holdsMore(const Client& one, const Client& other) const;

  private:
    struct Held {
        std::size_t byUser = 0;
        std::size_t byProcess = 0;
        auto operator<=>(const Held&) const = default;  // NOLINT(modernize-use-nullptr): a false alarm
    };

    Held heldBy(const Client& client) const;
    bool processIsFull(const Client& client) const { return heldBy(client).byProcess >= m_ofProcess; }
    bool userIsFull(const Client& client) const { return heldBy(client).byUser >= m_ofUser; }

    const std::size_t m_places;
    const std::size_t m_ofUser;
    const std::size_t m_ofProcess;
    std::size_t m_held = 0;
    std::map<uid_t, std::size_t> m_users;
    std::map<Client, std::size_t> m_processes;
};

}  // namespace vexagent
