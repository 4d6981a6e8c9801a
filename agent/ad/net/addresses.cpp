// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/addresses.h"

#include <netdb.h>

#include <condition_variable>
#include <cstring>
#include <memory>
#include <thread>

#include "vorn/signals_blocked.h"

namespace vexagent {
namespace {

constexpr std::chrono::milliseconds kNameTime{300};  // for DNS, where addresses are known from earlier

using Addresses = vorn::Expected<std::vector<Address>, int>;

struct FreeAddresses {
    void operator()(addrinfo* list) const { ::freeaddrinfo(list); }
};

Addresses lookUp(const std::string& host, int flags) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags;
    addrinfo* list = nullptr;
    const int error = ::getaddrinfo(host.c_str(), nullptr, &hints, &list);
    if (error != 0) return vorn::unexpected(error);
    const std::unique_ptr<addrinfo, FreeAddresses> owner(list);
    std::vector<Address> addresses;
    for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
        Address address;
        std::memcpy(&address.bytes, entry->ai_addr, entry->ai_addrlen);
        address.size = entry->ai_addrlen;
        addresses.push_back(address);
    }
    return addresses;
}

// Shared with a thread that may outlive who waits for it.
struct LookUp {
    std::mutex mutex;
    std::condition_variable over;
    std::optional<Addresses> found;  // guarded by mutex
};

Addresses askResolver(const std::string& host, const vorn::Deadline& deadline) {
    const auto state = std::make_shared<LookUp>();
    {
        const vorn::SignalsBlocked blocked;
        std::thread([state, host] {
            Addresses found = lookUp(host, AI_ADDRCONFIG);
            const std::lock_guard lock(state->mutex);
            state->found.emplace(std::move(found));
            state->over.notify_one();
        }).detach();
    }
    std::unique_lock lock(state->mutex);
    if (!state->over.wait_for(lock, deadline.left(), [&] { return state->found.has_value(); }))
        return vorn::unexpected(EAI_AGAIN);
    return *state->found;
}

KnownAddresses& knownAddresses() {
    static KnownAddresses known;
    return known;
}

}  // namespace

std::optional<KnownAddresses::Known> KnownAddresses::find(const std::string& host, vorn::Moment now) const {
    const std::lock_guard lock(m_mutex);
    const auto known = m_hosts.find(host);
    if (known == m_hosts.end()) return std::nullopt;
    return Known{known->second.addresses, now < known->second.freshUntil};
}

void KnownAddresses::keep(const std::string& host, std::vector<Address> addresses, vorn::Moment now) {
    const std::lock_guard lock(m_mutex);
    if (m_hosts.size() >= kMost && !m_hosts.contains(host)) m_hosts.clear();
    m_hosts[host] = {std::move(addresses), now + kFreshTime};
}

Addresses addressesOf(const std::string& host, const vorn::Deadline& deadline) {
    if (Addresses number = lookUp(host, AI_NUMERICHOST)) return number;
    const vorn::SteadyClock& clock = deadline.clock();
    const auto known = knownAddresses().find(host, clock.now());
    if (known && known->fresh) return known->addresses;
    Addresses found = askResolver(host, known ? deadline.atMost(kNameTime) : deadline);
    if (found)
        knownAddresses().keep(host, *found, clock.now());
    else if (known)
        return known->addresses;
    return found;
}

}  // namespace vexagent
