// SPDX-License-Identifier: Apache-2.0
#include "agent/server/shares.h"

namespace vexagent {
namespace {

template <typename Key>
std::size_t at(const std::map<Key, std::size_t>& counts, const Key& key) {
    const auto found = counts.find(key);
    return found == counts.end() ? 0 : found->second;
}

template <typename Key>
void lower(std::map<Key, std::size_t>& counts, const Key& key) {
    if (--counts.at(key) == 0) counts.erase(key);
}

}  // namespace

Shares::Shares(std::size_t places)
    : m_places(places), m_ofUser(places - places / 8), m_ofProcess(places - places / 4) {}

void Shares::add(const Client& client) {
    std::size_t& ofUser = m_users[client.uid];
    std::size_t& ofProcess = m_processes[client];
    ++m_held, ++ofUser, ++ofProcess;
}

void Shares::remove(const Client& client) {
    --m_held;
    lower(m_users, client.uid);
    lower(m_processes, client);
}

Shares::Held Shares::heldBy(const Client& client) const {
    return {at(m_users, client.uid), at(m_processes, client)};
}

bool Shares::hasPlaceFor(const Client& client) const {
    return m_held < m_places && !processIsFull(client) && !userIsFull(client);
}

bool Shares::mayTake(const Client& newcomer, const Client& holder) const {
    if (processIsFull(newcomer)) return holder == newcomer;
    if (userIsFull(newcomer)) return holder.uid == newcomer.uid;
    return !holdsMore(newcomer, holder);
}

bool Shares::holdsMore(const Client& one, const Client& other) const {
    return heldBy(one) > heldBy(other);
}

}  // namespace vexagent
