#include "agent/ad/net/ldap_network.h"

#include <algorithm>

#include "agent/ad/net/long_search.h"
#include "agent/ad/net/ranges.h"
#include "vorn/own_file.h"
#include "vorn/signals_blocked.h"
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
    if (options.transport != Transport::Gssapi) vorn::readSecretLine(options.bindPasswordFile);
    return options;
}

Domain::Kind kindOf(const Place& place) {
    return place.kind == Place::Kind::Catalog ? Domain::Kind::Catalog : Domain::Kind::Domain;
}

}  // namespace

// -------------------------------------------------------------------- domains

LdapNetwork::LdapNetwork(const AdOptions& options)
    : m_options(checked(options)),
      m_tickets(options.transport != Transport::Gssapi
                    ? nullptr
                    : std::make_unique<Tickets>(
                          m_options, [this](const std::string& realm) { return controllersOf(realm); })),
      m_context{m_options, m_watchdog, m_tickets.get()} {
    Domain& joined = at({m_options.domain});
    // A list of servers needs nobody to look for them.
    if (!m_options.servers.empty()) joined.locate();
    const vorn::SignalsBlocked blocked;
    m_house = std::thread([this] { keepHouse(); });
}

LdapNetwork::~LdapNetwork() {
    {
        const std::lock_guard lock(m_houseMutex);
        m_stopping = true;
    }
    m_wakeHouse.notify_one();
    m_house.join();
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
        if (!domain) domain = std::make_unique<Domain>(m_context, place.name, kindOf(place), place.forest);
        added = domain.get();
    }
    const std::lock_guard lock(m_houseMutex);
    m_hasNew = true;
    m_wakeHouse.notify_one();
    return *added;
}

// Of a realm whose domain has been asked for before; null for another one.
Controllers* LdapNetwork::controllersOf(const std::string& realm) {
    Domain* domain = known(vorn::lower(realm));
    return domain == nullptr ? nullptr : &domain->controllers();
}

// ---------------------------------------------------------------------- house

void LdapNetwork::keepHouse() {
    std::unique_lock lock(m_houseMutex);
    while (!m_stopping) {
        m_hasNew = false;
        lock.unlock();
        tendAll();
        lock.lock();
        m_wakeHouse.wait_for(lock, kHouseTime, [this] { return m_stopping || m_hasNew; });
    }
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
    SearchEnd end;
    const LdapStatus status = at(place).run(deadline, [&](Domain::Lease& lease) {
        std::vector<Entry> parts;
        sink.restart();
        end = {};
        LdapStatus done = lease->searchAll(
            searches, deadline,
            [&](Entry&& entry) {
                if (hasRanges(entry))
                    parts.push_back(std::move(entry));
                else
                    sink.take(std::move(entry));
            },
            &end.missing);
        for (Entry& entry : parts) {
            if (done.ok()) done = readRanges(*lease, entry, deadline);
            if (done.ok()) sink.take(std::move(entry));
        }
        return done;
    });
    if (!status.ok()) return vorn::unexpected(failureOf(status));
    return end;
}

Expected<OpenedSearch, LdapFailure> LdapNetwork::open(const Place& place, LongSearch search,
                                                      const Deadline& deadline) {
    return openSearch(at(place), std::move(search), deadline);
}

Expected<std::shared_ptr<const DomainInfo>, LdapFailure> LdapNetwork::describe(const Place& place,
                                                                               const Deadline& deadline) {
    std::shared_ptr<const DomainInfo> info;
    const LdapStatus status = at(place).info(deadline, info);
    if (!status.ok()) return vorn::unexpected(failureOf(status));
    return info;
}

Expected<Accepted, LdapFailure> LdapNetwork::bind(const Place& place, const std::string& dn,
                                                  const std::string& password, const Deadline& deadline) {
    return at(place).tryPassword(dn, password, deadline);
}

Expected<Accepted, KdcFailure> LdapNetwork::askKdc(const Place& place, const std::string& account,
                                                   const std::string& password, const Deadline& deadline) {
    KdcConversation kdc([this](const std::string& realm) { return controllersOf(realm); }, deadline);
    const PasswordCheck check = checkPassword(m_options, kdc, account, at(place).name(), password);
    if (check.accepted) return *check.accepted;
    return vorn::unexpected(KdcFailure{check.status.code, check.status.text, check.verified});
}

Expected<Done, LdapFailure> LdapNetwork::probe(const Place& place, Look look, const Deadline& deadline) {
    Domain& domain = at(place);
    if (look == Look::IfLongAgo) {
        const LdapStatus status = domain.health(deadline);
        if (!status.ok()) return vorn::unexpected(failureOf(status));
        return Done();
    }
    const bool answers =
        look == Look::AtWhatIsKnown ? !domain.controllers().allDown(now()) : domain.answersNow();
    if (answers) return Done();
    return vorn::unexpected(LdapFailure(LDAP_UNAVAILABLE, domain.controllers().lastReason(), true));
}

}  // namespace vexagent
