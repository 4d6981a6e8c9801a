// What a search finds, entry by entry, whole or page by page.
//
// Pages are dear: a controller may look every entry of a page up by itself, which
// takes four times as long as sending them all at once. So results are asked for as
// a whole. A controller that sends only so many at once says so at their end: then
// the rest comes in pages, what has been shown already is left out, and for an agent
// that has met such a controller pages are the rule. What is large comes in pages
// from the first when all attributes are wanted; and so does everything for a while
// when a controller has had nothing to show for long because it was collecting.
#pragma once

#include <string>
#include <vector>

#include "agent/ad/net/link.h"

namespace vexagent {

// One search on one connection. For one thread; the search and the context outlive it.
class Results {
  public:
    Results(const LinkContext& context, const LdapSearch& search, int pageSize = Link::kPageSize)
        : m_context(context), m_search(search), m_pageSize(pageSize) {}

    // Sends the request; again, on whatever connection, from the beginning.
    LdapStatus begin(Link& link);

    // The next entry, or the end. A status with again asks for another beginning on
    // another connection, and comes before the first entry only.
    LdapStatus next(Link& link, const Deadline& deadline, Entry& entry);
    bool over() const { return m_over; }

  private:
    bool wantsPages() const;
    LdapStatus start(Link& link, const std::string& cookie);
    LdapStatus turnPages(Link& link);
    Deadline patience(const Deadline& deadline) const;
    bool wasShown(const std::string& dn) const;

    const LinkContext& m_context;
    const LdapSearch& m_search;
    const int m_pageSize;
    int m_id = 0;
    bool m_paged = false;
    bool m_over = false;
    std::vector<std::string> m_shown;  // DNs; sorted once there are pages
};

}  // namespace vexagent
