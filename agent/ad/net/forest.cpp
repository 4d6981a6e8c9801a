#include "agent/ad/net/forest.h"

#include "agent/directory/log.h"
#include "vorn/dn.h"
#include "vorn/signals_blocked.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

constexpr milliseconds kHouseTime{250};
constexpr milliseconds kLearnEvery{600'000};
constexpr milliseconds kLearnSoon{60'000};  // when the joined domain could not be asked
constexpr milliseconds kRefreshTime{2000};
constexpr char kCatalog[] = "$";  // no domain has this name

}  // namespace

Forest::Forest(const LinkContext& context)
    : m_context(context), m_joined(add(vorn::lower(context.options.domain), [&context] {
          return std::make_unique<Domain>(context, context.options.domain, Domain::Kind::Domain);
      })) {
    // A list of servers needs nobody to look for them.
    if (!context.options.servers.empty()) m_joined.locate();
    const vorn::SignalsBlocked blocked;
    m_house = std::thread([this] { keepHouse(); });
}

Forest::~Forest() {
    {
        const std::lock_guard lock(m_houseMutex);
        m_stopping = true;
    }
    m_wakeHouse.notify_one();
    m_house.join();
}

void Forest::keepHouse() {
    std::unique_lock lock(m_houseMutex);
    while (!m_stopping) {
        m_work = false;
        lock.unlock();
        std::vector<Domain*> domains;
        {
            const std::lock_guard domainsLock(m_mutex);
            for (const auto& [name, domain] : m_domains) domains.push_back(domain.get());
        }
        for (Domain* domain : domains) domain->tend();
        refresh();
        lock.lock();
        m_wakeHouse.wait_for(lock, kHouseTime, [this] { return m_stopping || m_work; });
    }
}

Domain* Forest::known(const std::string& key) {
    const std::lock_guard lock(m_mutex);
    const auto domain = m_domains.find(key);
    return domain == m_domains.end() ? nullptr : domain->second.get();
}

Domain& Forest::add(const std::string& key, const std::function<std::unique_ptr<Domain>()>& make) {
    Domain* added = nullptr;
    {
        const std::lock_guard lock(m_mutex);
        std::unique_ptr<Domain>& place = m_domains[key];
        if (!place) place = make();
        added = place.get();
    }
    const std::lock_guard lock(m_houseMutex);
    m_work = true;
    m_wakeHouse.notify_one();
    return *added;
}

Controllers* Forest::controllersOf(const std::string& realm) {
    Domain* domain = known(vorn::lower(realm));
    return domain == nullptr ? nullptr : &domain->controllers();
}

LdapStatus Forest::catalog(const Deadline& deadline, Domain*& domain) {
    domain = known(kCatalog);
    if (domain != nullptr) return {};
    std::shared_ptr<const DomainInfo> info;
    LdapStatus status = m_joined.info(deadline, info);
    if (!status.ok()) return status;
    domain = &add(kCatalog, [&] {
        const std::string forest = vorn::lower(vorn::DN::domainFromDN(info->forest));
        return std::make_unique<Domain>(m_context, forest, Domain::Kind::Catalog);
    });
    return {};
}

LdapStatus Forest::find(const std::string& name, const Deadline& deadline, Domain*& domain) {
    domain = &m_joined;
    if (vorn::equalsIgnoreCase(name, m_joined.name())) return {};
    domain = nullptr;
    std::shared_ptr<const KnownDomains> known;
    LdapStatus status = names(deadline, known);
    const std::string key = vorn::lower(name);
    if (status.ok() && known->contains(key))
        domain = &add(key, [&] {
            return std::make_unique<Domain>(m_context, key, Domain::Kind::Domain, known->forest());
        });
    return status;
}

// ------------------------------------------------------------- which there are

// Requests wait for this once: what has been learned is learned anew apart from them.
LdapStatus Forest::names(const Deadline& deadline, std::shared_ptr<const KnownDomains>& names) {
    {
        const std::lock_guard lock(m_mutex);
        names = m_names;
    }
    return names ? LdapStatus() : learn(deadline, names);
}

LdapStatus Forest::learn(const Deadline& deadline, std::shared_ptr<const KnownDomains>& names) {
    std::shared_ptr<const DomainInfo> info;
    LdapStatus status = m_joined.info(deadline, info);
    if (!status.ok()) return status;
    auto fresh = std::make_shared<KnownDomains>(vorn::DN::domainFromDN(info->forest));
    std::vector<Entry> entries;
    status = m_joined.search({"CN=Partitions,CN=Configuration," + info->forest, LDAP_SCOPE_ONELEVEL,
                              "(objectCategory=crossRef)", KnownDomains::kPartitionAttributes},
                             deadline, entries);
    if (!status.ok()) return status;
    for (const Entry& partition : entries) fresh->addPartition(partition);
    if (m_context.options.transport == Transport::Gssapi) {
        status = m_joined.search({"CN=System," + info->root, LDAP_SCOPE_ONELEVEL,
                                  "(objectClass=trustedDomain)", KnownDomains::kTrustAttributes},
                                 deadline, entries);
        if (!status.ok() && !isMissing(status)) return status;
        for (const Entry& trust : entries) fresh->addTrust(trust);
    }
    names = fresh;
    const std::lock_guard lock(m_mutex);
    m_names = fresh;
    m_learnAgain = now() + kLearnEvery;
    return {};
}

// Where the joined domain cannot be asked, what it has said before counts.
void Forest::refresh() {
    {
        const std::lock_guard lock(m_mutex);
        if (!m_names || now() < m_learnAgain) return;
        m_learnAgain = now() + kLearnSoon;
    }
    std::shared_ptr<const KnownDomains> names;
    if (const LdapStatus status = learn(within(kRefreshTime), names); !status.ok())
        AGENT_LOG(vorn::Logger::kWarning, "%s cannot be asked which domains there are: %s",
                  m_joined.name().c_str(), status.text.c_str());
}

}  // namespace vexagent
