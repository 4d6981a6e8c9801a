// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/results.h"

#include <algorithm>
#include <deque>

namespace vexagent {
namespace {

constexpr milliseconds kPagesTime{600'000};  // after a large result that took long
constexpr int kShareOfTime = 4;              // of the time is waited for a large result's first entry
constexpr std::size_t kUnderWay = 8;

bool isCut(const LdapFailure& failure) {
    return failure.code == LDAP_SIZELIMIT_EXCEEDED || failure.code == LDAP_ADMINLIMIT_EXCEEDED;
}

}  // namespace

void PageRule::holdFor(milliseconds time) {
    const Moment until = m_clock.now() + time;
    Moment known = m_until.load();
    while (known < until && !m_until.compare_exchange_weak(known, until)) {
    }
}

// -------------------------------------------------------------------- one search

Linked<Done> Results::start(Link& link, const std::string& cookie) {
    const auto id = link.start(m_search, cookie, m_paged ? m_pageSize : 0);
    if (!id) return vorn::unexpected(id.error());
    m_id = *id;
    return Done();
}

bool Results::wantsPages() const {
    if (m_search.extent == Extent::Few || m_search.scope == LDAP_SCOPE_BASE) return false;
    if (m_pageSize < Link::kPageSize || m_rule.holds()) return true;
    // Everything of everybody takes a controller too long to collect.
    const auto& names = m_search.attributes;
    const bool all = names.empty() || std::find(names.begin(), names.end(), "*") != names.end();
    return all && m_search.extent == Extent::Many;
}

Linked<Done> Results::begin(Link& link) {
    m_paged = wantsPages();
    m_over = false;
    m_shown.clear();
    return start(link, "");
}

// The result was cut: all of it anew, by pages.
Linked<Done> Results::turnPages(Link& link) {
    m_rule.holdForEver();
    m_paged = true;
    std::sort(m_shown.begin(), m_shown.end());
    return start(link, "");
}

bool Results::isNew(const std::string& dn) {
    if (m_paged) return !std::binary_search(m_shown.begin(), m_shown.end(), dn);
    m_shown.push_back(dn);
    return true;
}

// For how long the next message is waited for.
Deadline Results::patience(const Deadline& deadline) const {
    const bool mayTakeLong = m_search.extent == Extent::Many && !m_paged && m_shown.empty();
    return mayTakeLong ? deadline.atMost(deadline.left() / kShareOfTime) : deadline;
}

Linked<Done> Results::goOn(Link& link, const LinkFailure& failure, const Deadline& until,
                           const Deadline& deadline) {
    if (!m_paged && isCut(failure)) return turnPages(link);
    LinkFailure end = failure;
    // The watchdog may have ended the wait: then the connection seems down.
    const bool late = end.code == LDAP_TIMEOUT || end.code == LDAP_SERVER_DOWN;
    end.again = late && until.passed() && until.end() < deadline.end();
    if (end.again) m_rule.holdFor(kPagesTime);
    return vorn::unexpected(end);
}

Linked<std::optional<Entry>> Results::next(Link& link, const Deadline& deadline) {
    while (!m_over) {
        const Deadline until = patience(deadline);
        auto event = link.next(m_id, until);
        Linked<Done> more = Done();
        if (!event) {
            more = goOn(link, event.error(), until, deadline);
        } else if (auto* entry = std::get_if<Entry>(&*event)) {
            if (isNew(entry->dn)) return std::optional(std::move(*entry));
        } else {
            const std::string& cookie = std::get<PageEnd>(*event).cookie;
            m_over = cookie.empty();
            if (!m_over) more = start(link, cookie);
        }
        if (!more) return vorn::unexpected(more.error());
    }
    return std::optional<Entry>();
}

// --------------------------------------------------------------- whole searches

Linked<Done> LinkReader::readAll(Results& results, const Visitor& visit) {
    for (;;) {
        auto entry = results.next(m_link, m_deadline);
        if (!entry) return vorn::unexpected(entry.error());
        if (!*entry) return Done();
        visit(std::move(**entry));
    }
}

Linked<Done> LinkReader::search(const LdapSearch& search, const Visitor& visit) {
    Results results(m_rule, search);
    const auto begun = results.begin(m_link);
    return begun ? readAll(results, visit) : begun;
}

Linked<SearchEnd> LinkReader::searchAll(const std::vector<LdapSearch>& searches, const Visitor& visit) {
    SearchEnd end;
    std::deque<Results> underWay;
    std::size_t started = 0;
    for (std::size_t i = 0; i < searches.size(); ++i) {
        for (; started < searches.size() && started < i + kUnderWay; ++started) {
            underWay.emplace_back(m_rule, searches[started]);
            if (const auto begun = underWay.back().begin(m_link); !begun)
                return vorn::unexpected(begun.error());
        }
        const auto read = readAll(underWay.front(), visit);
        underWay.pop_front();
        if (read) continue;
        if (!isMissing(read.error())) {
            // Answers to the others are on their way.
            if (!underWay.empty()) m_link.giveUp();
            return vorn::unexpected(read.error());
        }
        end.missing = read.error();
    }
    return end;
}

Linked<Done> LinkReader::probe() {
    const LdapSearch root = {"", LDAP_SCOPE_BASE, "(objectClass=*)", {"1.1"}};
    return search(root, [](Entry&&) {});
}

}  // namespace vexagent
