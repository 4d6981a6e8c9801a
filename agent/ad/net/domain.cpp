#include "agent/ad/net/domain.h"

#include <algorithm>
#include <future>
#include <random>

#include "agent/ad/net/srv.h"
#include "agent/directory/log.h"
#include "vorn/dn.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

constexpr std::uint16_t kLdapPort = 389;
constexpr std::uint16_t kLdapsPort = 636;
constexpr std::uint16_t kCatalogPort = 3268;
constexpr std::uint16_t kCatalogTlsPort = 3269;

constexpr milliseconds kShortTime{1000};    // for a controller that failed a short while ago
constexpr int kProbeShare = 3;              // of the time that is left, to see whether one is there
constexpr milliseconds kLeastProbe{100};    // in less nothing can be seen
constexpr milliseconds kTrustTime{20'000};  // for which an idle connection is taken as it is
constexpr milliseconds kIdleTime{300'000};  // after which one is closed
constexpr milliseconds kLocateEvery{600'000};
constexpr milliseconds kLocateSoon{15'000};  // when nothing was found
constexpr milliseconds kLearnTime{1000};     // for the addresses of all controllers found
constexpr milliseconds kFreshAnswer{2000};
constexpr std::size_t kMostStrangers = 64;  // that are told of
constexpr int kOtherSite = 1 << 16;         // above every priority

double randomFraction() {
    thread_local std::mt19937 generator{std::random_device{}()};
    return std::uniform_real_distribution<double>(0, 1)(generator);
}

// How many of the forest's partitions are domains, and the short name of one.
void readPartition(const Entry& partition, DomainInfo& info) {
    const std::string_view name = partition.first("nETBIOSName");
    if (name.empty()) return;
    ++info.domains;
    if (vorn::equalsIgnoreCase(partition.first("nCName"), info.root)) info.netbios = name;
}

}  // namespace

Domain::Domain(const LinkContext& context, std::string name, Kind kind, std::string forest)
    : m_context(context),
      m_name(std::move(name)),
      m_kind(kind),
      m_forest(std::move(forest)),
      m_controllers(randomFraction) {}

std::uint16_t Domain::port() const {
    const bool tls = m_context.options.transport == Transport::Ldaps;
    if (m_kind == Kind::Catalog) return tls ? kCatalogTlsPort : kCatalogPort;
    return tls ? kLdapsPort : kLdapPort;
}

// ---------------------------------------------------------------- controllers

std::vector<Controller> Domain::listed() const {
    std::vector<Controller> controllers;
    if (m_kind == Kind::Domain && !vorn::equalsIgnoreCase(m_name, m_context.options.domain)) return {};
    for (const std::string& server : m_context.options.servers) {
        Peer peer;
        if (!parsePeer(server, port(), peer)) continue;
        if (m_kind == Kind::Catalog) peer.port = port();
        controllers.push_back({peer, 0});
    }
    return controllers;
}

bool Domain::find(std::vector<Controller>& controllers, std::string& reason) {
    controllers = listed();
    if (!controllers.empty()) return true;
    const std::string& site = m_context.options.site;
    const std::string service = m_kind == Kind::Catalog ? "_gc._tcp" : "_ldap._tcp";
    const std::string suffix = m_kind == Kind::Catalog ? m_name : "dc._msdcs." + m_name;
    std::vector<SrvRecord> records;
    if (!site.empty() && querySrv(service + "." + site + "._sites." + suffix, records, reason))
        take(records, 0, controllers, reason);
    if (querySrv(service + "." + suffix, records, reason)) take(records, kOtherSite, controllers, reason);
    return !controllers.empty();
}

void Domain::take(const std::vector<SrvRecord>& records, int rank, std::vector<Controller>& controllers,
                  std::string& reason) {
    for (const SrvRecord& record : orderRecords(records, randomFraction)) {
        if (!isOwnHost(record.target)) {
            reason = "DNS names " + vorn::printable(record.target) + ", which is not below " + m_name;
            continue;
        }
        // A record names the port without TLS.
        const bool tls = m_context.options.transport == Transport::Ldaps;
        const Peer peer{vorn::lower(record.target), tls ? port() : record.port};
        const bool known = std::any_of(controllers.begin(), controllers.end(),
                                       [&](const Controller& other) { return other.peer == peer; });
        if (!known) controllers.push_back({peer, rank + record.priority});
    }
}

// With TLS a certificate proves that a controller has its name, and that name comes from
// DNS, which proves nothing: so it must be the domain's, or the forest's. Of tickets each
// side proves itself.
bool Domain::isOwnHost(const std::string& host) {
    if (m_context.options.transport == Transport::Gssapi || liesBelow(host, m_name) ||
        liesBelow(host, m_forest))
        return true;
    const std::lock_guard lock(m_mutex);
    if (m_info && liesBelow(host, vorn::DN::domainFromDN(m_info->forest))) return true;
    if (m_strangers.size() < kMostStrangers && m_strangers.insert(host).second)
        AGENT_LOG(vorn::Logger::kWarning,
                  "DNS names %s for %s: it is not asked, since it lies neither below that name nor below the "
                  "forest's; if it is a controller, list it in ad.servers",
                  vorn::printable(host).c_str(), m_name.c_str());
    return false;
}

void Domain::locate() {
    std::string reason;
    locate(reason);
}

void Domain::locate(std::string& reason) {
    std::vector<Controller> controllers;
    const bool found = find(controllers, reason);
    // Where DNS has gone, those known before are still worth asking.
    if (found) m_controllers.set(controllers);
    // Those that no request has gone to yet must be reached without DNS, too.
    const Deadline learning = within(kLearnTime);
    for (const Controller& controller : controllers) learnAddresses(controller.peer.host, learning);
    const std::lock_guard lock(m_mutex);
    if (!found && reason != m_locateReason)
        AGENT_LOG(vorn::Logger::kWarning, "no controllers of %s are found: %s", m_name.c_str(),
                  reason.c_str());
    m_located = true;
    m_locateReason = found ? "" : reason;
    m_locateAgain = now() + (found ? kLocateEvery : kLocateSoon);
    m_changed.notify_all();
}

LdapStatus Domain::waitForControllers(const Deadline& deadline) {
    if (m_controllers.size() > 0) return {};
    std::unique_lock lock(m_mutex);
    m_changed.wait_until(lock, deadline.end(), [this] { return m_located; });
    if (m_controllers.size() > 0) return {};
    return nobodyKnown(m_locateReason.empty() ? std::string("DNS has not answered yet") : m_locateReason);
}

LdapStatus Domain::nobodyKnown(const std::string& reason) const {
    return {LDAP_UNAVAILABLE, "no controller of " + m_name + " is known: " + reason, true};
}

LdapStatus Domain::probe(const Peer& peer, const Deadline& deadline) {
    std::unique_ptr<Link> link;
    LdapStatus status = Link::openAnonymous(m_context, peer, deadline, link);
    if (status.ok()) status = link->probe(deadline);
    if (status.ok()) m_controllers.answered(peer, now());
    return status;
}

bool Domain::stillThere(const Peer& peer, const Deadline& deadline) {
    const milliseconds time = deadline.share(kShortTime, kProbeShare);
    return time < kLeastProbe || probe(peer, within(time)).ok();
}

bool Domain::answersNow() {
    const std::vector<Controllers::Choice> choices = m_controllers.order(now());
    std::vector<std::future<bool>> answers;
    answers.reserve(choices.size());
    for (const Controllers::Choice& choice : choices)
        answers.push_back(std::async(
            std::launch::async, [this, peer = choice.peer] { return probe(peer, within(kShortTime)).ok(); }));
    bool any = false;
    for (std::future<bool>& answer : answers) any = answer.get() || any;
    return any;
}

void Domain::tend() {
    bool locateNow = false;
    std::vector<Idle> old;
    {
        const std::lock_guard lock(m_mutex);
        locateNow = !m_located || now() >= m_locateAgain;
        for (auto& [peer, links] : m_idle)
            for (auto idle = links.begin(); idle != links.end();) {
                const bool over =
                    now() - idle->since > kIdleTime || !idle->link->looksUsable(m_context.options.clock());
                if (over) old.push_back(std::move(*idle));
                idle = over ? links.erase(idle) : std::next(idle);
            }
    }
    old.clear();
    if (locateNow) locate();
    Peer peer;
    if (!m_controllers.dueAgain(now(), peer)) return;
    const LdapStatus status = probe(peer, within(kShortTime));
    if (status.ok()) {
        AGENT_LOG(vorn::Logger::kInfo, "controller %s answers again", peer.host.c_str());
        m_controllers.succeeded(peer);
    } else {
        m_controllers.failed(peer, now(), status.text);
    }
}

// ---------------------------------------------------------------- connections

bool Domain::Lease::keep() {
    const std::lock_guard lock(m_domain->m_mutex);
    if (m_domain->m_long >= m_domain->mostLong()) return false;
    ++m_domain->m_long;
    m_long = true;
    return true;
}

void Domain::giveBack(std::unique_ptr<Link> link, bool wasLong, bool reusable) {
    const bool keep = reusable && link->looksUsable(m_context.options.clock());
    link->setPatience(nullptr);
    {
        const std::lock_guard lock(m_mutex);
        if (wasLong) --m_long;
        std::vector<Idle>& idle = m_idle[link->peer()];
        if (keep && idle.size() < m_context.options.connections) idle.push_back({std::move(link), now()});
    }
}

bool Domain::acquire(const Deadline& deadline) {
    std::unique_lock lock(m_mutex);
    if (!m_changed.wait_until(lock, deadline.end(),
                              [this] { return m_running < m_context.options.connections; }))
        return false;
    ++m_running;
    return true;
}

void Domain::release() {
    const std::lock_guard lock(m_mutex);
    --m_running;
    m_changed.notify_all();
}

std::unique_ptr<Link> Domain::takeIdle(const Peer& peer, const Deadline& deadline) {
    for (;;) {
        Idle idle;
        {
            const std::lock_guard lock(m_mutex);
            std::vector<Idle>& links = m_idle[peer];
            if (links.empty()) return nullptr;
            idle = std::move(links.back());
            links.pop_back();
        }
        if (!idle.link->looksUsable(m_context.options.clock())) continue;
        if (now() - idle.since < kTrustTime) return std::move(idle.link);
        if (idle.link->probe(deadline.atMost(kShortTime)).ok()) return std::move(idle.link);
    }
}

void Domain::dropIdle(const Peer& peer) {
    std::vector<Idle> links;
    const std::lock_guard lock(m_mutex);
    links.swap(m_idle[peer]);
}

LdapStatus Domain::attempt(std::unique_ptr<Link> link, const Work& work, Others others) {
    const Peer peer = link->peer();
    // Where there is nobody else it is waited for all the same, but it is known then
    // whether it answers at all.
    link->setPatience([this, peer, others](const Deadline& deadline) {
        return stillThere(peer, deadline) || others == Others::None;
    });
    Lease lease(*this, std::move(link));
    LdapStatus status = work(lease);
    if (lease) m_controllers.answered(peer, lease->answeredAt());
    if (status.lost) lease.spoil();
    return status;
}

LdapStatus Domain::runOn(const Peer& peer, const Deadline& open, const Deadline& deadline, const Work& work,
                         Others others) {
    LdapStatus status;
    std::unique_ptr<Link> link = takeIdle(peer, deadline);
    if (link) {
        status = attempt(std::move(link), work, others);
        // One that was idle may have been closed just now; what is lost at once says
        // nothing about the controller.
        const bool closed = status.lost && status.code == LDAP_SERVER_DOWN;
        if (!closed && !status.again) return status;
        if (closed) dropIdle(peer);
    } else {
        status = Link::open(m_context, m_name, peer, open, link);
        if (status.ok()) status = attempt(std::move(link), work, others);
        if (!status.again) return status;
    }
    // The time for taking a connection may have gone with the first one.
    const Deadline anew = deadline.atMost(deadline.share(kPatience, kPatienceShare));
    status = Link::open(m_context, m_name, peer, status.again ? anew : open, link);
    return status.ok() ? attempt(std::move(link), work, others) : status;
}

LdapStatus Domain::runOnAll(const Deadline& deadline, const Work& work) {
    LdapStatus status = nobodyKnown("the list is empty");
    const std::vector<Controllers::Choice> choices = m_controllers.order(now());
    for (std::size_t i = 0; i < choices.size(); ++i) {
        const Peer& peer = choices[i].peer;
        const bool last = i + 1 == choices.size();
        const Deadline whole = choices[i].due ? deadline : deadline.atMost(kShortTime);
        const Deadline open = last ? whole : whole.atMost(whole.share(kPatience, kPatienceShare));
        status = runOn(peer, open, whole, work, last ? Others::None : Others::Some);
        if (!status.lost) {
            m_controllers.succeeded(peer);
            m_controllers.answered(peer, now());
            m_lastAnswer = now();
            return status;
        }
        if (status.barred) continue;
        status = fault(peer, open, deadline, status);
        if (deadline.passed()) break;
    }
    return status;
}

// Whose failure it is that a controller did not answer as it should. until is what it was
// waited for at least. One that has answered since the request began is not at fault for
// being late: the request has used up its own time, with this controller or before.
LdapStatus Domain::fault(const Peer& peer, const Deadline& until, const Deadline& deadline,
                         const LdapStatus& status) {
    const bool late = until.passed() || deadline.passed();
    if (m_controllers.failed(peer, now(), status.text,
                             late ? std::optional(deadline.begin()) : std::nullopt)) {
        AGENT_LOG(vorn::Logger::kWarning, "controller %s has failed: %s", peer.host.c_str(),
                  status.text.c_str());
        dropIdle(peer);
        return status;
    }
    return deadline.passed() ? timeIsUp() : status;
}

LdapStatus Domain::blame(const Link& link, const Deadline& deadline, const LdapStatus& status) {
    if (!status.lost) return status;
    m_controllers.answered(link.peer(), link.answeredAt());
    if (deadline.passed() && m_controllers.hasAnsweredSince(link.peer(), deadline.begin())) return timeIsUp();
    noteLost(status);
    return status;
}

LdapStatus Domain::run(const Deadline& deadline, const Work& work) {
    LdapStatus status = waitForControllers(deadline);
    if (!status.ok()) return status;
    if (!acquire(deadline)) {
        AGENT_LOG(vorn::Logger::kWarning, "all connections to %s are in use (ad.connections)",
                  m_name.c_str());
        return timeIsUp();
    }
    struct Release {
        Domain& domain;
        ~Release() { domain.release(); }
    };
    const Release atEnd{*this};
    status = runOnAll(deadline, work);
    if (status.lost) noteLost(status);
    return status;
}

void Domain::noteLost(const LdapStatus& status) {
    const std::lock_guard lock(m_mutex);
    m_lostAt = now();
    m_lost = status;
}

LdapStatus Domain::search(const LdapSearch& search, const Deadline& deadline, std::vector<Entry>& entries) {
    return run(deadline, [&](Lease& lease) {
        entries.clear();
        return lease->search(search, deadline, [&](Entry&& entry) { entries.push_back(std::move(entry)); });
    });
}

Expected<Accepted, LdapFailure> Domain::tryPassword(const std::string& dn, const std::string& password,
                                                    const Deadline& deadline) {
    if (const LdapStatus status = waitForControllers(deadline); !status.ok())
        return vorn::unexpected(failureOf(status));
    LdapStatus failed = timeIsUp();
    const std::vector<Controllers::Choice> choices = m_controllers.order(now());
    for (std::size_t i = 0; i < choices.size() && !deadline.passed(); ++i) {
        const Peer& peer = choices[i].peer;
        std::unique_ptr<Link> link;
        const bool last = i + 1 == choices.size();
        const Deadline open = last ? deadline : deadline.atMost(deadline.share(kPatience, kPatienceShare));
        failed = Link::openAnonymous(m_context, peer, open, link);
        if (!failed.ok()) {
            failed = fault(peer, open, deadline, failed);
            continue;
        }
        auto accepted = link->checkPassword(dn, password, deadline);
        const bool late = !accepted && accepted.error().lost && deadline.passed();
        if (late && m_controllers.hasAnsweredSince(peer, deadline.begin()))
            return vorn::unexpected(outOfTime());
        return accepted;
    }
    return vorn::unexpected(failureOf(failed));
}

LdapStatus Domain::health(const Deadline& deadline) {
    {
        // Who has waited in vain just now is not kept waiting to be told so.
        const std::lock_guard lock(m_mutex);
        if (now() - m_lostAt < kFreshAnswer && m_lostAt > m_lastAnswer.load()) return m_lost;
    }
    if (now() - m_lastAnswer.load() < kFreshAnswer && !m_controllers.allDown(now())) return {};
    return run(deadline, [&](Lease& lease) { return lease->probe(deadline); });
}

// ----------------------------------------------------------------------- info

LdapStatus Domain::readInfo(const Deadline& deadline, DomainInfo& info) {
    std::vector<Entry> entries;
    const LdapSearch rootDse = {
        "",
        LDAP_SCOPE_BASE,
        "(objectClass=*)",
        {"defaultNamingContext", "rootDomainNamingContext", "configurationNamingContext"}};
    LdapStatus status = search(rootDse, deadline, entries);
    if (!status.ok()) return status;
    if (entries.empty() || entries[0].first("rootDomainNamingContext").empty())
        return {LDAP_OTHER, m_name + ": the controller does not say what it holds"};
    info.root = vorn::DN::dnFromDomain(m_name);
    info.forest = entries[0].first("rootDomainNamingContext");
    const std::string configuration(entries[0].first("configurationNamingContext"));

    status = search({info.root, LDAP_SCOPE_BASE, "(objectClass=*)", {"objectSid"}}, deadline, entries);
    if (!status.ok()) return status;
    if (!entries.empty()) info.sid = entries[0].first("objectSid");
    status = search({"CN=Partitions," + configuration,
                     LDAP_SCOPE_ONELEVEL,
                     "(objectCategory=crossRef)",
                     {"nETBIOSName", "nCName"}},
                    deadline, entries);
    if (!status.ok()) return status;
    info.domains = 0;
    for (const Entry& entry : entries) readPartition(entry, info);
    return {};
}

LdapStatus Domain::info(const Deadline& deadline, std::shared_ptr<const DomainInfo>& info) {
    {
        const std::lock_guard lock(m_mutex);
        info = m_info;
    }
    if (info) return {};
    auto fresh = std::make_shared<DomainInfo>();
    LdapStatus status = readInfo(deadline, *fresh);
    if (!status.ok()) return status;
    info = fresh;
    const std::lock_guard lock(m_mutex);
    m_info = info;
    // Some may be the forest's.
    if (!m_strangers.empty()) m_locateAgain = {};
    return {};
}

}  // namespace vexagent
