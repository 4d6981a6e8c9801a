// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/domain.h"

#include <future>

#include "agent/directory/log.h"
#include "vorn/dn.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

constexpr milliseconds kShortTime{1000};  // for a controller that failed a short while ago
constexpr int kProbeShare = 3;            // of the time that is left, to see whether one is there
constexpr milliseconds kLeastProbe{100};  // in less nothing can be seen
constexpr milliseconds kFreshAnswer{2000};

// How many of the forest's partitions are domains, and the short name of one.
void readPartition(const Entry& partition, DomainInfo& info) {
    const std::string_view name = partition.first("nETBIOSName");
    if (name.empty()) return;
    ++info.domains;
    if (vorn::equalsIgnoreCase(partition.first("nCName"), info.root)) info.netbios = name;
}

}  // namespace

Domain::Domain(const NetContext& context, Place place)
    : m_context(context),
      m_place(std::move(place)),
      m_controllers(context.random),
      m_locator(m_context, m_place, m_controllers),
      m_pool(m_context) {}

// ------------------------------------------------------------------- requests

Linked<Done> Domain::run(const Deadline& deadline, const Work& work) {
    if (auto some = m_locator.waitForSome(deadline); !some) return some;
    const auto turn = m_pool.takeTurn(deadline);
    if (!turn) {
        AGENT_LOG(vorn::Logger::kWarning, "all connections to %s are in use (ad.connections)",
                  m_place.name.c_str());
        return vorn::unexpected(LinkFailure(outOfTime()));
    }
    auto done = runOnAll(deadline, work);
    if (!done && done.error().lost) noteLost(done.error());
    return done;
}

Linked<Done> Domain::runOnAll(const Deadline& deadline, const Work& work) {
    LinkFailure failure = m_locator.nobodyKnown("the list is empty");
    const std::vector<Controllers::Choice> choices = m_controllers.order(now());
    for (std::size_t i = 0; i < choices.size(); ++i) {
        const Peer& peer = choices[i].peer;
        const bool last = i + 1 == choices.size();
        const Deadline whole = choices[i].due ? deadline : deadline.atMost(kShortTime);
        const Deadline open = last ? whole : withPatience(whole);
        auto done = runOn({peer, open, whole, last, work});
        if (done || !done.error().lost) {
            noteAnswer(peer);
            return done;
        }
        failure = done.error();
        if (failure.barred) continue;
        failure = fault(peer, open, deadline, failure);
        if (deadline.passed()) break;
    }
    return vorn::unexpected(failure);
}

Linked<Done> Domain::runOn(const Attempt& attempt) {
    std::unique_ptr<Link> idle = m_pool.take(attempt.peer, attempt.whole);
    const bool wasIdle = idle != nullptr;
    auto done = wasIdle ? workOn(std::move(idle), attempt) : openAndWork(attempt, attempt.open);
    if (done) return done;
    // One that was idle may have been closed just now; what is lost at once says
    // nothing about the controller.
    const bool closed = wasIdle && done.error().lost && done.error().code == LDAP_SERVER_DOWN;
    if (closed) m_pool.drop(attempt.peer);
    if (!closed && !done.error().again) return done;
    // The time for taking a connection may have gone with the first one.
    return openAndWork(attempt, done.error().again ? withPatience(attempt.whole) : attempt.open);
}

Linked<Done> Domain::openAndWork(const Attempt& attempt, const Deadline& open) {
    auto link = m_context.connector.open(m_place.name, attempt.peer, open);
    if (!link) return vorn::unexpected(link.error());
    return workOn(std::move(*link), attempt);
}

Linked<Done> Domain::workOn(std::unique_ptr<Link> link, const Attempt& attempt) {
    // Where there is nobody else it is waited for all the same, but it is known then
    // whether it answers at all.
    link->setPatience([this, peer = attempt.peer, last = attempt.last](const Deadline& deadline) {
        return stillThere(peer, deadline) || last;
    });
    Lease lease(m_pool, std::move(link));
    auto done = attempt.work(lease);
    if (lease) m_controllers.answered(attempt.peer, lease->answeredAt());
    if (!done && done.error().lost) lease.spoil();
    return done;
}

Expected<Accepted, LdapFailure> Domain::tryPassword(const std::string& dn, const std::string& password,
                                                    const Deadline& deadline) {
    std::optional<Accepted> accepted;
    const auto asked = askOne(deadline, [&](Link& link) -> Expected<Done, LdapFailure> {
        const auto checked = link.checkPassword(dn, password, deadline);
        if (!checked) return vorn::unexpected(checked.error());
        accepted = *checked;
        return Done();
    });
    if (!asked) return vorn::unexpected(asked.error());
    return *accepted;
}

Expected<Done, LdapFailure> Domain::askOne(const Deadline& deadline, const Question& ask) {
    if (auto some = m_locator.waitForSome(deadline); !some)
        return vorn::unexpected(LdapFailure(some.error()));
    LinkFailure failure{outOfTime()};
    const std::vector<Controllers::Choice> choices = m_controllers.order(now());
    for (std::size_t i = 0; i < choices.size() && !deadline.passed(); ++i) {
        const Peer& peer = choices[i].peer;
        const Deadline open = i + 1 == choices.size() ? deadline : withPatience(deadline);
        const auto link = m_context.connector.openAnonymous(peer, open);
        if (!link) {
            failure = fault(peer, open, deadline, link.error());
            continue;
        }
        auto answer = ask(**link);
        const bool late = !answer && answer.error().lost && deadline.passed();
        if (late && m_controllers.hasAnsweredSince(peer, deadline.begin()))
            return vorn::unexpected(outOfTime());
        return answer;
    }
    return vorn::unexpected(LdapFailure(failure));
}

// ------------------------------------------------------------ whose failure it is

void Domain::noteAnswer(const Peer& peer) {
    m_controllers.succeeded(peer);
    m_controllers.answered(peer, now());
    m_lastAnswer = now();
}

void Domain::noteLost(const LinkFailure& failure) {
    const std::lock_guard lock(m_mutex);
    m_lostAt = now();
    m_lost = failure;
}

// until is what it was waited for at least. One that has answered since the request began
// is not at fault for being late: the request has used up its own time, with this
// controller or before.
LinkFailure Domain::fault(const Peer& peer, const Deadline& until, const Deadline& deadline,
                          const LinkFailure& failure) {
    const bool late = until.passed() || deadline.passed();
    if (m_controllers.failed(peer, now(), failure.text,
                             late ? std::optional(deadline.begin()) : std::nullopt)) {
        AGENT_LOG(vorn::Logger::kWarning, "controller %s has failed: %s", peer.host.c_str(),
                  failure.text.c_str());
        m_pool.drop(peer);
        return failure;
    }
    return deadline.passed() ? LinkFailure(outOfTime()) : failure;
}

LinkFailure Domain::blame(const Link& link, const Deadline& deadline, const LinkFailure& failure) {
    if (!failure.lost) return failure;
    m_controllers.answered(link.peer(), link.answeredAt());
    if (deadline.passed() && m_controllers.hasAnsweredSince(link.peer(), deadline.begin()))
        return LinkFailure(outOfTime());
    noteLost(failure);
    return failure;
}

// ---------------------------------------------------------- whether somebody answers

Linked<Done> Domain::probe(const Peer& peer, const Deadline& deadline) {
    const auto link = m_context.connector.openAnonymous(peer, deadline);
    if (!link) return vorn::unexpected(link.error());
    auto answer = LinkReader(**link, m_context.pages, deadline).probe();
    if (answer) m_controllers.answered(peer, now());
    return answer;
}

bool Domain::stillThere(const Peer& peer, const Deadline& deadline) {
    const milliseconds time = deadline.share(kShortTime, kProbeShare);
    return time < kLeastProbe || probe(peer, m_context.within(time));
}

bool Domain::answersNow(const Deadline& deadline) {
    const std::vector<Controllers::Choice> choices = m_controllers.order(now());
    std::vector<std::future<bool>> answers;
    answers.reserve(choices.size());
    for (const Controllers::Choice& choice : choices)
        answers.push_back(std::async(std::launch::async, [this, &deadline, peer = choice.peer] {
            return probe(peer, deadline).has_value();
        }));
    bool any = false;
    for (std::future<bool>& answer : answers) any = answer.get() || any;
    return any;
}

Linked<Done> Domain::health(const Deadline& deadline) {
    {
        // Who has waited in vain just now is not kept waiting to be told so.
        const std::lock_guard lock(m_mutex);
        if (m_lost && now() - m_lostAt < kFreshAnswer && m_lostAt > m_lastAnswer.load())
            return vorn::unexpected(*m_lost);
    }
    if (now() - m_lastAnswer.load() < kFreshAnswer && !m_controllers.allDown(now())) return Done();
    return run(deadline, [&](Lease& lease) { return LinkReader(*lease, m_context.pages, deadline).probe(); });
}

void Domain::tend() {
    m_pool.dropOld();
    if (m_locator.isDue()) static_cast<void>(m_locator.locate());
    const std::optional<Peer> peer = m_controllers.dueAgain(now());
    if (!peer) return;
    if (const auto answer = probe(*peer, m_context.within(kShortTime)); !answer) {
        m_controllers.failed(*peer, now(), answer.error().text);
        return;
    }
    AGENT_LOG(vorn::Logger::kInfo, "controller %s answers again", peer->host.c_str());
    m_controllers.succeeded(*peer);
}

// ----------------------------------------------------------------------- info

Linked<std::vector<Entry>> Domain::read(const LdapSearch& search, const Deadline& deadline) {
    std::vector<Entry> entries;
    const auto done = run(deadline, [&](Lease& lease) {
        entries.clear();
        return LinkReader(*lease, m_context.pages, deadline).search(search, [&](Entry&& entry) {
            entries.push_back(std::move(entry));
        });
    });
    if (!done) return vorn::unexpected(done.error());
    return entries;
}

Linked<DomainInfo> Domain::readInfo(const Deadline& deadline) {
    const auto rootDse =
        read({"",
              LDAP_SCOPE_BASE,
              "(objectClass=*)",
              {"defaultNamingContext", "rootDomainNamingContext", "configurationNamingContext"}},
             deadline);
    if (!rootDse) return vorn::unexpected(rootDse.error());
    if (rootDse->empty() || (*rootDse)[0].first("rootDomainNamingContext").empty())
        return vorn::unexpected(
            LinkFailure(LDAP_OTHER, m_place.name + ": the controller does not say what it holds"));
    DomainInfo info;
    info.root = vorn::DN::dnFromDomain(m_place.name);
    info.forest = (*rootDse)[0].first("rootDomainNamingContext");
    const std::string configuration((*rootDse)[0].first("configurationNamingContext"));

    const auto root = read({info.root, LDAP_SCOPE_BASE, "(objectClass=*)", {"objectSid"}}, deadline);
    if (!root) return vorn::unexpected(root.error());
    if (!root->empty()) info.sid = (*root)[0].first("objectSid");
    const auto partitions = read({"CN=Partitions," + configuration,
                                  LDAP_SCOPE_ONELEVEL,
                                  "(objectCategory=crossRef)",
                                  {"nETBIOSName", "nCName"}},
                                 deadline);
    if (!partitions) return vorn::unexpected(partitions.error());
    info.domains = 0;
    for (const Entry& partition : *partitions) readPartition(partition, info);
    return info;
}

Linked<std::shared_ptr<const DomainInfo>> Domain::info(const Deadline& deadline) {
    {
        const std::lock_guard lock(m_mutex);
        if (m_info) return m_info;
    }
    auto fresh = readInfo(deadline);
    if (!fresh) return vorn::unexpected(fresh.error());
    m_locator.learnForest(vorn::DN::domainFromDN(fresh->forest));
    const std::lock_guard lock(m_mutex);
    m_info = std::make_shared<DomainInfo>(std::move(*fresh));
    return m_info;
}

}  // namespace vexagent
