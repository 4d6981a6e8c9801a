// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/searching.h"

#include <algorithm>
#include <optional>

#include "agent/ad/net/ranges.h"

namespace vexagent {
namespace {

Linked<Done> completeAll(Domain& domain, std::vector<Entry>& entries, const Deadline& deadline) {
    if (std::none_of(entries.begin(), entries.end(), hasRanges)) return Done();
    return domain.run(deadline, [&](Domain::Lease& lease) -> Linked<Done> {
        LinkReader reader(*lease, domain.context().pages, deadline);
        for (Entry& entry : entries) {
            // The work may be done again: the entry changes when it is whole.
            Entry whole = entry;
            if (auto done = completeRanges(reader, whole); !done) return done;
            entry = std::move(whole);
        }
        return Done();
    });
}

// The state of one search on one connection.
class LeasedSearch final : public OpenSearch {
  public:
    LeasedSearch(Domain& domain, LongSearch search)
        : m_domain(domain),
          m_search(std::move(search)),
          m_results(domain.context().pages, m_search.search, static_cast<int>(m_search.page)) {}
    ~LeasedSearch() override {
        // Entries that nobody has read are still under way.
        if (m_lease && !atEnd()) m_lease->spoil();
    }

    // Sends the request and reads the first batch's entries.
    Linked<std::vector<Entry>> begin(Link& link, const Deadline& deadline) {
        if (const auto begun = m_results.begin(link); !begun) return vorn::unexpected(begun.error());
        return read(link, m_search.first, deadline);
    }

    // Takes the connection for as long as the search is open.
    Linked<Done> keep(Domain::Lease& lease) {
        if (!lease.keep()) return vorn::unexpected(tooMany());
        m_lease.emplace(std::move(lease));
        return Done();
    }

    Expected<std::vector<Entry>, LdapFailure> next(std::size_t most, const Deadline& deadline) override {
        auto entries = read(**m_lease, most, deadline);
        if (!entries) {
            LdapFailure failure = m_domain.blame(**m_lease, deadline, entries.error());
            m_lease->spoil();
            m_lease.reset();
            m_failed = true;
            return vorn::unexpected(failure);
        }
        if (atEnd()) m_lease.reset();
        if (const auto whole = completeAll(m_domain, *entries, deadline); !whole)
            return vorn::unexpected(LdapFailure(whole.error()));
        return outside(std::move(entries));
    }

    bool atEnd() const override { return m_failed || m_results.over(); }

  private:
    LinkFailure tooMany() const {
        return {LDAP_BUSY,
                "too many searches of " + m_domain.name() +
                    " are open: " + std::to_string(m_domain.mostLong()) + ", four times ad.connections",
                false, "too many searches are open"};
    }

    Linked<std::vector<Entry>> read(Link& link, std::size_t most, const Deadline& deadline) {
        std::vector<Entry> entries;
        std::size_t bytes = 0;
        while (entries.size() < most && bytes < m_search.bytes) {
            auto entry = m_results.next(link, deadline);
            if (!entry) return vorn::unexpected(entry.error());
            if (!*entry) break;
            if (m_search.wanted && !m_search.wanted(**entry)) continue;
            bytes += entryBytes(**entry);
            entries.push_back(std::move(**entry));
        }
        return entries;
    }

    Domain& m_domain;
    const LongSearch m_search;
    Results m_results;
    std::optional<Domain::Lease> m_lease;
    bool m_failed = false;
};

}  // namespace

Expected<SearchEnd, LdapFailure> searchIn(Domain& domain, const std::vector<LdapSearch>& searches,
                                          EntrySink& sink, const Deadline& deadline) {
    SearchEnd end;
    const auto done = domain.run(deadline, [&](Domain::Lease& lease) -> Linked<Done> {
        LinkReader reader(*lease, domain.context().pages, deadline);
        std::vector<Entry> parts;
        sink.restart();
        const auto read = reader.searchAll(searches, [&](Entry&& entry) {
            if (hasRanges(entry))
                parts.push_back(std::move(entry));
            else
                sink.take(std::move(entry));
        });
        if (!read) return vorn::unexpected(read.error());
        for (Entry& entry : parts) {
            if (auto whole = completeRanges(reader, entry); !whole) return whole;
            sink.take(std::move(entry));
        }
        end = *read;
        return Done();
    });
    if (!done) return vorn::unexpected(LdapFailure(done.error()));
    return end;
}

Expected<OpenedSearch, LdapFailure> openSearch(Domain& domain, LongSearch search, const Deadline& deadline) {
    auto rest = std::make_unique<LeasedSearch>(domain, std::move(search));
    OpenedSearch opened;
    auto done = domain.run(deadline, [&](Domain::Lease& lease) -> Linked<Done> {
        auto first = rest->begin(*lease, deadline);
        Linked<Done> begun = Done();
        if (!first)
            begun = vorn::unexpected(first.error());
        else if (!rest->atEnd())
            begun = rest->keep(lease);
        if (begun)
            opened.first = std::move(*first);
        else
            lease.spoil();
        return begun;
    });
    if (done) done = completeAll(domain, opened.first, deadline);
    if (!done) return vorn::unexpected(LdapFailure(done.error()));
    if (!rest->atEnd()) opened.rest = std::move(rest);
    return opened;
}

}  // namespace vexagent
