#include "agent/ad/net/long_search.h"

#include <algorithm>
#include <optional>

#include "agent/ad/net/ranges.h"
#include "agent/ad/net/results.h"

namespace vexagent {
namespace {

LdapStatus completeRanges(Domain& domain, std::vector<Entry>& entries, const Deadline& deadline) {
    if (std::none_of(entries.begin(), entries.end(), hasRanges)) return {};
    return domain.run(deadline, [&](Domain::Lease& lease) {
        for (Entry& entry : entries) {
            if (!hasRanges(entry)) continue;
            // The work may be done again: the entry changes when it is whole.
            Entry whole = entry;
            if (LdapStatus status = readRanges(*lease, whole, deadline); !status.ok()) return status;
            entry = std::move(whole);
        }
        return LdapStatus();
    });
}

// The state of one search on one connection.
class LeasedSearch final : public OpenSearch {
  public:
    LeasedSearch(Domain& domain, LongSearch search)
        : m_domain(domain),
          m_search(std::move(search)),
          m_results(domain.context(), m_search.search, static_cast<int>(m_search.page)) {}
    ~LeasedSearch() override {
        // Entries that nobody has read are still under way.
        if (m_lease && !atEnd()) m_lease->spoil();
    }

    // Sends the request and reads the first batch's entries.
    LdapStatus begin(Link& link, const Deadline& deadline, std::vector<Entry>& entries) {
        LdapStatus status = m_results.begin(link);
        return status.ok() ? read(link, m_search.first, deadline, entries) : status;
    }

    // Takes the connection for as long as the search is open.
    LdapStatus keep(Domain::Lease& lease) {
        if (!lease.keep()) return tooMany();
        m_lease.emplace(std::move(lease));
        return {};
    }

    Expected<std::vector<Entry>, LdapFailure> next(std::size_t most, const Deadline& deadline) override {
        std::vector<Entry> entries;
        LdapStatus status = read(**m_lease, most, deadline, entries);
        if (!status.ok()) {
            status = m_domain.blame(**m_lease, deadline, status);
            m_lease->spoil();
            m_lease.reset();
            m_failed = true;
            return vorn::unexpected(failureOf(status));
        }
        if (atEnd()) m_lease.reset();
        status = completeRanges(m_domain, entries, deadline);
        if (!status.ok()) return vorn::unexpected(failureOf(status));
        return entries;
    }

    bool atEnd() const override { return m_failed || m_results.over(); }

  private:
    LdapStatus tooMany() const {
        return {LDAP_BUSY,
                "too many searches of " + m_domain.name() +
                    " are open: " + std::to_string(m_domain.mostLong()) + ", four times ad.connections",
                false, false, "too many searches are open"};
    }

    LdapStatus read(Link& link, std::size_t most, const Deadline& deadline, std::vector<Entry>& entries) {
        std::size_t bytes = 0;
        while (entries.size() < most && bytes < m_search.bytes) {
            Entry entry;
            LdapStatus status = m_results.next(link, deadline, entry);
            if (!status.ok() || m_results.over()) return status;
            if (m_search.wanted && !m_search.wanted(entry)) continue;
            bytes += entryBytes(entry);
            entries.push_back(std::move(entry));
        }
        return {};
    }

    Domain& m_domain;
    const LongSearch m_search;
    Results m_results;
    std::optional<Domain::Lease> m_lease;
    bool m_failed = false;
};

}  // namespace

Expected<OpenedSearch, LdapFailure> openSearch(Domain& domain, LongSearch search, const Deadline& deadline) {
    auto rest = std::make_unique<LeasedSearch>(domain, std::move(search));
    std::vector<Entry> first;
    LdapStatus status = domain.run(deadline, [&](Domain::Lease& lease) {
        first.clear();
        LdapStatus begun = rest->begin(*lease, deadline, first);
        if (begun.ok() && !rest->atEnd()) begun = rest->keep(lease);
        if (!begun.ok()) lease.spoil();
        return begun;
    });
    if (status.ok()) status = completeRanges(domain, first, deadline);
    if (!status.ok()) return vorn::unexpected(failureOf(status));
    OpenedSearch opened{std::move(first), nullptr};
    if (!rest->atEnd()) opened.rest = std::move(rest);
    return opened;
}

}  // namespace vexagent
