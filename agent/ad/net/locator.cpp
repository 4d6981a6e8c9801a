// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/locator.h"

#include <algorithm>

#include "agent/directory/log.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

constexpr std::uint16_t kLdapPort = 389;
constexpr std::uint16_t kLdapsPort = 636;
constexpr std::uint16_t kCatalogPort = 3268;
constexpr std::uint16_t kCatalogTlsPort = 3269;

constexpr milliseconds kLocateEvery{600'000};
constexpr milliseconds kLocateSoon{15'000};  // when nothing was found
constexpr milliseconds kLearnTime{1000};     // for the addresses of all controllers found
constexpr std::size_t kMostStrangers = 64;   // that are told of
constexpr int kOtherSite = 1 << 16;          // above every priority

}  // namespace

std::uint16_t Locator::port() const {
    const bool tls = m_context.options.transport == Transport::Ldaps;
    if (m_place.kind == Place::Kind::Catalog) return tls ? kCatalogTlsPort : kCatalogPort;
    return tls ? kLdapsPort : kLdapPort;
}

Locator::Found Locator::listed() const {
    const bool catalog = m_place.kind == Place::Kind::Catalog;
    if (!catalog && !vorn::equalsIgnoreCase(m_place.name, m_context.options.domain)) return {};
    Found controllers;
    for (const std::string& server : m_context.options.controllers.servers) {
        std::optional<Peer> peer = parsePeer(server, port());
        if (!peer) continue;
        if (catalog) peer->port = port();
        controllers.push_back({*peer, 0});
    }
    return controllers;
}

Expected<Locator::Found, std::string> Locator::find() {
    Found found = listed();
    if (!found.empty()) return found;
    const bool catalog = m_place.kind == Place::Kind::Catalog;
    const std::string service = catalog ? "_gc._tcp" : "_ldap._tcp";
    const std::string suffix = catalog ? m_place.name : "dc._msdcs." + m_place.name;
    const std::string& site = m_context.options.controllers.site;
    std::vector<std::pair<std::string, int>> names = {{service + "." + suffix, kOtherSite}};
    if (!site.empty()) names.insert(names.begin(), {service + "." + site + "._sites." + suffix, 0});
    std::string reason;
    for (const auto& [name, rank] : names) {
        const auto records = m_context.connector.findService(name);
        const std::string why = records ? take(*records, rank, found) : records.error();
        if (!why.empty()) reason = why;
    }
    if (found.empty()) return vorn::unexpected(reason);
    return found;
}

std::string Locator::take(const std::vector<SrvRecord>& records, int rank, Found& found) {
    std::string reason;
    for (const SrvRecord& record : orderRecords(records, m_context.random)) {
        if (!isOwnHost(record.target)) {
            reason = "DNS names " + vorn::printable(record.target) + ", which is not below " + m_place.name;
            continue;
        }
        // A record names the port without TLS.
        const bool tls = m_context.options.transport == Transport::Ldaps;
        const Peer peer{vorn::lower(record.target), tls ? port() : record.port};
        const bool known = std::any_of(found.begin(), found.end(),
                                       [&](const Controller& other) { return other.peer == peer; });
        if (!known) found.push_back({peer, rank + record.priority});
    }
    return reason;
}

// With TLS a certificate proves that a controller has its name, and that name comes from
// DNS, which proves nothing: so it must be the domain's, or the forest's. Of tickets each
// side proves itself.
bool Locator::isOwnHost(const std::string& host) {
    if (m_context.options.transport == Transport::Gssapi || liesBelow(host, m_place.name) ||
        liesBelow(host, m_place.forest))
        return true;
    const std::lock_guard lock(m_mutex);
    if (liesBelow(host, m_forest)) return true;
    if (m_strangers.size() < kMostStrangers && m_strangers.insert(host).second)
        AGENT_LOG(vorn::Logger::kWarning,
                  "DNS names %s for %s: it is not asked, since it lies neither below that name nor below the "
                  "forest's; if it is a controller, list it in ad.servers",
                  vorn::printable(host).c_str(), m_place.name.c_str());
    return false;
}

void Locator::learnForest(const std::string& forest) {
    const std::lock_guard lock(m_mutex);
    m_forest = forest;
    // Some may be the forest's.
    if (!m_strangers.empty()) m_again = {};
}

Expected<Done, std::string> Locator::locate() {
    const auto found = find();
    if (found) {
        m_controllers.set(*found);
        // Those that no request has gone to yet must be reached without DNS, too.
        const Deadline learning = m_context.within(kLearnTime);
        for (const Controller& controller : *found)
            m_context.connector.learnAddresses(controller.peer.host, learning);
    }
    note(found);
    if (!found) return vorn::unexpected(found.error());
    return Done();
}

void Locator::note(const Expected<Found, std::string>& found) {
    const std::lock_guard lock(m_mutex);
    if (!found && found.error() != m_reason)
        AGENT_LOG(vorn::Logger::kWarning, "no controllers of %s are found: %s", m_place.name.c_str(),
                  found.error().c_str());
    m_located = true;
    m_reason = found ? "" : found.error();
    m_again = m_context.clock.now() + (found ? kLocateEvery : kLocateSoon);
    m_changed.notify_all();
}

bool Locator::isDue() const {
    const std::lock_guard lock(m_mutex);
    return !m_located || m_context.clock.now() >= m_again;
}

Linked<Done> Locator::waitForSome(const Deadline& deadline) {
    if (m_controllers.size() > 0) return Done();
    std::unique_lock lock(m_mutex);
    m_changed.wait_for(lock, deadline.left(), [this] { return m_located; });
    if (m_controllers.size() > 0) return Done();
    return vorn::unexpected(nobodyKnown(m_reason.empty() ? "DNS has not answered yet" : m_reason));
}

LinkFailure Locator::nobodyKnown(const std::string& reason) const {
    return {LDAP_UNAVAILABLE, "no controller of " + m_place.name + " is known: " + reason, true};
}

}  // namespace vexagent
