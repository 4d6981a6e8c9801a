// SPDX-License-Identifier: Apache-2.0
#include "agent/server/open_searches.h"

#include <sys/random.h>

#include "vex/wire.h"

namespace vexagent {

namespace wire = vex::wire;

std::uint64_t randomId() {
    std::uint64_t id = 0;
    while (id == 0)
        if (getrandom(&id, sizeof id, 0) != static_cast<ssize_t>(sizeof id)) id = 0;
    return id;
}

void OpenSearches::connected(const Client& client) {
    ++m_state.lock()->clients[client].connections;
}

void OpenSearches::disconnected(const Client& client) {
    const auto state = m_state.lock();
    const auto gone = state->clients.find(client);
    if (gone == state->clients.end() || --gone->second.connections > 0) return;
    std::erase_if(state->searches, [&](const auto& search) { return search.second.client == client; });
    state->clients.erase(gone);
}

std::uint64_t OpenSearches::keep(const Client& client, std::unique_ptr<Cursor> cursor) {
    const auto state = m_state.lock();
    const auto owner = state->clients.find(client);
    // A client that has gone meanwhile will not ask for the rest.
    if (owner == state->clients.end() || owner->second.searches >= wire::kMaxSearchesPerClient) return 0;
    std::uint64_t id = m_newId();
    while (id == 0 || state->searches.contains(id)) id = m_newId();
    state->searches.emplace(id, OpenSearch{client, std::move(cursor), m_clock()});
    ++owner->second.searches;
    return id;
}

std::unique_ptr<Cursor> OpenSearches::take(const Client& client, std::uint64_t id) {
    const auto state = m_state.lock();
    const auto search = state->searches.find(id);
    if (search == state->searches.end() || search->second.client != client) return nullptr;
    return std::move(search->second.cursor);
}

void OpenSearches::putBack(std::uint64_t id, std::unique_ptr<Cursor> cursor) {
    const auto state = m_state.lock();
    const auto search = state->searches.find(id);
    if (search == state->searches.end()) return;  // closed meanwhile
    if (!cursor) return state->erase(search);
    search->second.cursor = std::move(cursor);
    search->second.lastUsed = m_clock();
}

void OpenSearches::close(const Client& client, std::uint64_t id) {
    const auto state = m_state.lock();
    const auto search = state->searches.find(id);
    if (search != state->searches.end() && search->second.client == client) state->erase(search);
}

void OpenSearches::expire() {
    const auto state = m_state.lock();
    const std::time_t now = m_clock();
    for (auto search = state->searches.begin(); search != state->searches.end();) {
        const auto next = std::next(search);
        const bool idle = search->second.cursor && now - search->second.lastUsed > wire::kSearchIdleSeconds;
        if (idle) state->erase(search);
        search = next;
    }
}

void OpenSearches::State::erase(std::map<std::uint64_t, OpenSearch>::iterator search) {
    const auto owner = clients.find(search->second.client);
    if (owner != clients.end()) --owner->second.searches;
    searches.erase(search);
}

}  // namespace vexagent
