#include "agent/ad/net/results.h"

#include <algorithm>

namespace vexagent {
namespace {

constexpr milliseconds kPagesTime{600'000};  // after a large result that took long
constexpr int kShareOfTime = 4;              // of the time is waited for a large result's first entry

bool isCut(const LdapStatus& status) {
    return status.code == LDAP_SIZELIMIT_EXCEEDED || status.code == LDAP_ADMINLIMIT_EXCEEDED;
}

}  // namespace

LdapStatus Results::start(Link& link, const std::string& cookie) {
    return link.start(m_search, cookie, m_id, m_paged ? m_pageSize : 0);
}

bool Results::wantsPages() const {
    if (m_search.extent == Extent::Few || m_search.scope == LDAP_SCOPE_BASE) return false;
    if (m_pageSize < Link::kPageSize || now() < m_context.pagesUntil.load()) return true;
    // Everything of everybody takes a controller too long to collect.
    const auto& names = m_search.attributes;
    const bool all = names.empty() || std::find(names.begin(), names.end(), "*") != names.end();
    return all && m_search.extent == Extent::Many;
}

LdapStatus Results::begin(Link& link) {
    m_paged = wantsPages();
    m_over = false;
    m_shown.clear();
    return start(link, "");
}

// The result was cut: all of it anew, by pages.
LdapStatus Results::turnPages(Link& link) {
    m_context.pagesUntil = Moment::max();
    m_paged = true;
    std::sort(m_shown.begin(), m_shown.end());
    return start(link, "");
}

bool Results::wasShown(const std::string& dn) const {
    return std::binary_search(m_shown.begin(), m_shown.end(), dn);
}

// For how long the next message is waited for.
Deadline Results::patience(const Deadline& deadline) const {
    const bool mayTakeLong = m_search.extent == Extent::Many && !m_paged && m_shown.empty();
    return mayTakeLong ? deadline.atMost(deadline.left() / kShareOfTime) : deadline;
}

LdapStatus Results::next(Link& link, const Deadline& deadline, Entry& entry) {
    while (!m_over) {
        Link::Event event = Link::Event::Entry;
        std::string cookie;
        const Deadline until = patience(deadline);
        LdapStatus status = link.next(m_id, until, event, entry, cookie);
        if (!m_paged && isCut(status)) {
            if (status = turnPages(link); !status.ok()) return status;
            continue;
        }
        if (!status.ok()) {
            // The watchdog may have ended the wait: then the connection seems down.
            const bool late = status.code == LDAP_TIMEOUT || status.code == LDAP_SERVER_DOWN;
            status.again = late && until.passed() && until.end() < deadline.end();
            if (status.again)
                m_context.pagesUntil = std::max(m_context.pagesUntil.load(), now() + kPagesTime);
            return status;
        }
        if (event == Link::Event::End) {
            m_over = cookie.empty();
            if (m_over) break;
            if (status = start(link, cookie); !status.ok()) return status;
        } else if (!m_paged) {
            m_shown.push_back(entry.dn);
            return {};
        } else if (!wasShown(entry.dn)) {
            return {};
        }
    }
    return {};
}

}  // namespace vexagent
