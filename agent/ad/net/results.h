// SPDX-License-Identifier: Apache-2.0
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

#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "agent/ad/net/link.h"

namespace vexagent {

// Whether pages are the rule now: one for all connections of an agent. Safe for several
// threads.
class PageRule {
  public:
    // The clock outlives it.
    explicit PageRule(const vorn::SteadyClock& clock) : m_clock(clock) {}

    bool holds() const { return m_clock.now() < m_until.load(); }
    void holdForEver() { m_until = Moment::max(); }
    void holdFor(milliseconds time);

  private:
    const vorn::SteadyClock& m_clock;
    std::atomic<Moment> m_until{Moment{}};
};

// One search on one connection. For one thread; the search and the rule outlive it.
class Results {
  public:
    Results(PageRule& rule, const LdapSearch& search, int pageSize = Link::kPageSize)
        : m_rule(rule), m_search(search), m_pageSize(pageSize) {}

    // Sends the request; again, on whatever connection, from the beginning.
    Linked<Done> begin(Link& link);

    // The next entry; nothing at the end. A failure with again asks for another beginning
    // on another connection, and comes before the first entry only.
    Linked<std::optional<Entry>> next(Link& link, const Deadline& deadline);
    bool over() const { return m_over; }

  private:
    bool wantsPages() const;
    Linked<Done> start(Link& link, const std::string& cookie);
    Linked<Done> goOn(Link& link, const LinkFailure& failure, const Deadline& until,
                      const Deadline& deadline);
    Linked<Done> turnPages(Link& link);
    Deadline patience(const Deadline& deadline) const;
    bool isNew(const std::string& dn);

    PageRule& m_rule;
    const LdapSearch& m_search;
    const int m_pageSize;
    int m_id = 0;
    bool m_paged = false;
    bool m_over = false;
    std::vector<std::string> m_shown;  // DNs; sorted once there are pages
};

// Whole searches on one connection, within one deadline. For one thread; link and rule
// outlive it.
class LinkReader {
  public:
    LinkReader(Link& link, PageRule& rule, const Deadline& deadline)
        : m_link(link), m_rule(rule), m_deadline(deadline) {}

    using Visitor = std::function<void(Entry&&)>;
    Linked<Done> search(const LdapSearch& search, const Visitor& visit);

    // Several searches with as many under way as is of use. A base that is not there
    // finds nothing.
    Linked<SearchEnd> searchAll(const std::vector<LdapSearch>& searches, const Visitor& visit);

    // Whether the controller answers.
    Linked<Done> probe();

  private:
    Linked<Done> readAll(Results& results, const Visitor& visit);

    Link& m_link;
    PageRule& m_rule;
    const Deadline m_deadline;
};

}  // namespace vexagent
