#include "agent/ad/search.h"

#include <algorithm>
#include <optional>

#include "agent/ad/net/ranges.h"
#include "agent/ad/net/results.h"
#include "agent/directory/identifiers.h"
#include "vex/wire.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

LdapStatus completeRanges(Domain& domain, std::vector<Entry>& entries, const Deadline& deadline) {
    std::vector<Entry*> incomplete;
    for (Entry& entry : entries)
        if (hasRanges(entry)) incomplete.push_back(&entry);
    if (incomplete.empty()) return {};
    return domain.run(deadline, [&](Domain::Lease& lease) {
        LdapStatus status;
        for (Entry* entry : incomplete) {
            // The work may be done again: the entry changes when it is whole.
            Entry whole = *entry;
            status = readRanges(*lease, whole, deadline);
            if (!status.ok()) break;
            *entry = std::move(whole);
        }
        return status;
    });
}

// The state of one search on one connection.
class AdSearch final : public Cursor {
  public:
    AdSearch(const AdSource& source, AdPlan plan)
        : m_source(source),
          m_plan(std::move(plan)),
          m_results(source.domain.context(), m_plan.search, pageSize()) {}

    // Sends the request and reads the first batch's entries.
    LdapStatus begin(Link& link, const Deadline& deadline, std::vector<Entry>& entries) {
        m_total = 0;
        LdapStatus status = m_results.begin(link);
        return status.ok() ? read(link, firstBatch(), deadline, entries) : status;
    }

    void keep(Domain::Lease lease) { m_lease.emplace(std::move(lease)); }
    const AdPlan& plan() const { return m_plan; }
    std::uint64_t total() const { return m_total; }

    ~AdSearch() override {
        // Entries that nobody has read are still under way.
        if (m_lease && !atEnd()) m_lease->spoil();
    }

    Result next(Batch& batch) override {
        const Deadline deadline = within(m_source.options.timeout);
        std::vector<Entry> entries;
        LdapStatus status = read(**m_lease, vex::wire::kBatchObjects, deadline, entries);
        if (!status.ok()) {
            status = m_source.domain.blame(**m_lease, deadline, status);
            m_lease->spoil();
            m_lease.reset();
            m_failed = true;
            return resultOf(status);
        }
        if (atEnd()) m_lease.reset();
        batch.total = m_total;
        return makeObjects(m_source, m_plan, entries, deadline, batch.objects);
    }

    bool atEnd() const override { return m_failed || m_results.over(); }

  private:
    std::size_t firstBatch() const {
        return m_plan.firstBatch == 0 ? vex::wire::kBatchObjects
                                      : std::min(m_plan.firstBatch, vex::wire::kBatchObjects);
    }

    // Of a search for a few objects no more are sent.
    int pageSize() const {
        if (m_plan.firstBatch == 0 || m_plan.typed) return Link::kPageSize;
        return static_cast<int>(std::min<std::size_t>(m_plan.firstBatch, Link::kPageSize));
    }

    bool isWanted(const Entry& entry) const {
        if (m_plan.typed && !isUnixKind(entry)) return false;
        if (entry.first("objectGUID").size() != kGuidBytes) return false;
        return m_plan.without.empty() || !vorn::equalsIgnoreCase(m_plan.without, entry.dn);
    }

    LdapStatus read(Link& link, std::size_t most, const Deadline& deadline, std::vector<Entry>& entries) {
        std::size_t bytes = 0;
        while (entries.size() < most && bytes < vex::wire::kBatchBytes) {
            Entry entry;
            LdapStatus status = m_results.next(link, deadline, entry);
            if (!status.ok() || m_results.over()) return status;
            if (!isWanted(entry)) continue;
            bytes += entryBytes(entry);
            entries.push_back(std::move(entry));
            ++m_total;
        }
        return {};
    }

    const AdSource m_source;
    const AdPlan m_plan;
    Results m_results;
    std::optional<Domain::Lease> m_lease;
    std::uint64_t m_total = 0;
    bool m_failed = false;
};

}  // namespace

Result makeObjects(const AdSource& source, const AdPlan& plan, std::vector<Entry>& entries,
                   const Deadline& deadline, std::vector<Object>& objects) {
    LdapStatus status = completeRanges(source.domain, entries, deadline);
    if (!status.ok()) return resultOf(status);
    std::vector<const Entry*> groups;
    for (const Entry& entry : entries)
        if (showsMembers(entry, plan.view)) groups.push_back(&entry);
    std::vector<std::vector<std::string>> names;
    if (!groups.empty())
        status = source.memberships.memberUids(source.members, *plan.ids, groups, deadline, names);
    if (!status.ok()) return resultOf(status);
    std::size_t at = 0;
    for (Entry& entry : entries) plan.schema->removeSecrets(entry.attributes);
    const Part part = source.domain.kind() == Domain::Kind::Catalog ? Part::OfCatalog : Part::Whole;
    for (const Entry& entry : entries) {
        const bool isGroup = at < groups.size() && groups[at] == &entry;
        objects.push_back(makeObject(entry, plan.view, *plan.ids, isGroup ? &names[at] : nullptr, part));
        if (isGroup) ++at;
    }
    return {};
}

Result runAdSearch(const AdSource& source, AdPlan plan, const Deadline& deadline, Batch& first,
                   std::unique_ptr<Cursor>& rest) {
    auto search = std::make_unique<AdSearch>(source, std::move(plan));
    std::vector<Entry> entries;
    const LdapStatus status = source.domain.run(deadline, [&](Domain::Lease& lease) {
        entries.clear();
        LdapStatus begun = search->begin(*lease, deadline, entries);
        if (!begun.ok()) {
            lease.spoil();
            return begun;
        }
        if (search->atEnd()) return begun;
        if (!lease.keep()) {
            lease.spoil();
            return LdapStatus{LDAP_BUSY,
                              "too many searches of " + source.domain.name() + " are open: " +
                                  std::to_string(source.domain.mostLong()) + ", four times ad.connections",
                              false, false, "too many searches are open"};
        }
        search->keep(std::move(lease));
        return begun;
    });
    if (!status.ok()) return resultOf(status);
    first.total = search->total();
    Result made = makeObjects(source, search->plan(), entries, deadline, first.objects);
    if (made.ok() && !search->atEnd()) rest = std::move(search);
    return made;
}

}  // namespace vexagent
