// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/ldap_network.h"

#include <random>

#include "agent/ad/net/ldap_password_change.h"
#include "agent/ad/net/password_change.h"
#include "agent/ad/net/password_check.h"
#include "agent/ad/net/searching.h"
#include "vorn/own_file.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

constexpr milliseconds kHouseTime{250};

// No domain has the catalog's name.
std::string keyOf(const Place& place) {
    return (place.kind == Place::Kind::Catalog ? "$" : "") + vorn::lower(place.name);
}

// A password that others may read is refused at once, not at the first request.
const AdOptions& checked(const AdOptions& options) {
    if (options.transport != Transport::Gssapi) vorn::readSecretLine(options.account.bindPasswordFile);
    return options;
}

double randomFraction() {
    thread_local std::mt19937 generator{std::random_device{}()};
    return std::uniform_real_distribution<double>(0, 1)(generator);
}

}  // namespace

// -------------------------------------------------------------------- domains

LdapNetwork::LdapNetwork(const AdOptions& options, const vorn::SteadyClock& clock)
    : m_options(checked(options)),
      m_watchdog(clock),
      m_tickets(options.transport != Transport::Gssapi
                    ? nullptr
                    : std::make_unique<Tickets>(
                          m_options, [this](const std::string& realm) { return controllersOf(realm); })),
      m_connector(m_options, m_watchdog, clock, m_tickets.get()),
      m_pages(clock),
      m_context{m_options, m_connector, clock, m_pages, randomFraction} {
    Domain& joined = at({m_options.domain});
    // A list of servers needs nobody to look for them.
    if (!m_options.controllers.servers.empty()) static_cast<void>(joined.locator().locate());
    m_house.emplace(kHouseTime, [this] { tendAll(); });
}

Domain* LdapNetwork::known(const std::string& key) {
    const std::lock_guard lock(m_mutex);
    const auto domain = m_domains.find(key);
    return domain == m_domains.end() ? nullptr : domain->second.get();
}

Domain& LdapNetwork::at(const Place& place) {
    const std::string key = keyOf(place);
    if (Domain* domain = known(key)) return *domain;
    Domain* added = nullptr;
    {
        const std::lock_guard lock(m_mutex);
        std::unique_ptr<Domain>& domain = m_domains[key];
        if (!domain) domain = std::make_unique<Domain>(m_context, place);
        added = domain.get();
    }
    if (m_house) m_house->wake();
    return *added;
}

// Of a realm whose domain has been asked for before; null for another one.
Controllers* LdapNetwork::controllersOf(const std::string& realm) {
    Domain* domain = known(vorn::lower(realm));
    return domain == nullptr ? nullptr : &domain->controllers();
}

void LdapNetwork::tendAll() {
    std::vector<Domain*> domains;
    {
        const std::lock_guard lock(m_mutex);
        for (const auto& [name, domain] : m_domains) domains.push_back(domain.get());
    }
    for (Domain* domain : domains) domain->tend();
    const std::lock_guard lock(m_workMutex);
    if (m_work) m_work();
}

void LdapNetwork::tend(std::function<void()> work) {
    const std::lock_guard lock(m_workMutex);
    m_work = std::move(work);
}

// ------------------------------------------------------------------- requests

Expected<SearchEnd, LdapFailure> LdapNetwork::search(const Place& place,
                                                     const std::vector<LdapSearch>& searches, EntrySink& sink,
                                                     const Deadline& deadline) {
    return searchIn(at(place), searches, sink, deadline);
}

Expected<OpenedSearch, LdapFailure> LdapNetwork::open(const Place& place, LongSearch search,
                                                      const Deadline& deadline) {
    return openSearch(at(place), std::move(search), deadline);
}

Expected<std::shared_ptr<const DomainInfo>, LdapFailure> LdapNetwork::describe(const Place& place,
                                                                               const Deadline& deadline) {
    return outside(at(place).info(deadline));
}

Expected<Accepted, LdapFailure> LdapNetwork::bind(const Place& place, const std::string& dn,
                                                  const std::string& password, const Deadline& deadline) {
    return at(place).tryPassword(dn, password, deadline);
}

Expected<Accepted, KdcFailure> LdapNetwork::askKdc(const Place& place, const std::string& account,
                                                   const std::string& password, const Deadline& deadline) {
    KdcConversation kdc([this](const std::string& realm) { return controllersOf(realm); }, deadline);
    return checkPassword(m_options, kdc, account, at(place).name(), password);
}

Expected<Done, ChangeFailure> LdapNetwork::changePassword(const Place& place, const PasswordChange& change,
                                                          const Deadline& deadline) {
    if (m_options.transport != Transport::Gssapi) return changeByLdap(at(place), change, deadline);
    KdcConversation kdc([this](const std::string& realm) { return controllersOf(realm); }, deadline);
    return changeByKerberos(m_options, kdc, change, at(place).name(), deadline);
}

Expected<Done, LdapFailure> LdapNetwork::probe(const Place& place, Look look, const Deadline& deadline) {
    Domain& domain = at(place);
    if (look == Look::IfLongAgo) return outside(domain.health(deadline));
    const bool answers = look == Look::AtWhatIsKnown ? !domain.controllers().allDown(m_context.clock.now())
                                                     : domain.answersNow(deadline);
    if (answers) return Done();
    return vorn::unexpected(LdapFailure(LDAP_UNAVAILABLE, domain.controllers().lastReason(), true));
}

}  // namespace vexagent
