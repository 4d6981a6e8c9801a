// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/search.h"

#include <algorithm>

#include "agent/ad/objects.h"
#include "agent/directory/identifiers.h"
#include "vex/wire.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

constexpr std::size_t kPageSize = 1000;

// Of a search for a few objects no more are sent.
std::size_t pageSize(const AdPlan& plan) {
    if (plan.firstBatch == 0 || plan.typed) return kPageSize;
    return std::min(plan.firstBatch, kPageSize);
}

std::size_t firstBatch(const AdPlan& plan) {
    return plan.firstBatch == 0 ? vex::wire::kBatchObjects
                                : std::min(plan.firstBatch, vex::wire::kBatchObjects);
}

bool isWanted(const Entry& entry, bool typed, const std::string& without) {
    if (typed && !isUnixKind(entry)) return false;
    if (entry.first("objectGUID").size() != kGuidBytes) return false;
    return without.empty() || !vorn::equalsIgnoreCase(without, entry.dn);
}

LongSearch searchOf(const AdPlan& plan) {
    return {plan.search, firstBatch(plan), pageSize(plan), vex::wire::kBatchBytes,
            [typed = plan.typed, without = plan.without](const Entry& entry) {
                return isWanted(entry, typed, without);
            }};
}

// Entries that nobody has read yet.
class AdCursor final : public Cursor {
  public:
    AdCursor(const AdSource& source, AdPlan plan, std::unique_ptr<OpenSearch> rest, std::uint64_t total)
        : m_source(source), m_plan(std::move(plan)), m_rest(std::move(rest)), m_total(total) {}

    Result next(Batch& batch) override {
        const Deadline deadline(m_source.network.clock(), m_source.timeout);
        auto entries = m_rest->next(vex::wire::kBatchObjects, deadline);
        if (!entries || m_rest->atEnd()) m_rest.reset();
        if (!entries) return resultOf(entries.error());
        m_total += entries->size();
        batch.total = m_total;
        auto objects = makeObjects(m_source.memberships, m_plan, std::move(*entries), deadline);
        if (!objects) return objects.error();
        batch.objects = std::move(*objects);
        return {};
    }

    bool atEnd() const override { return m_rest == nullptr; }

  private:
    const AdSource m_source;
    const AdPlan m_plan;
    std::unique_ptr<OpenSearch> m_rest;  // null at the end
    std::uint64_t m_total;
};

std::vector<const Entry*> groupsAmong(const std::vector<Entry>& entries, const View& view) {
    std::vector<const Entry*> groups;
    for (const Entry& entry : entries)
        if (showsMembers(entry, view)) groups.push_back(&entry);
    return groups;
}

}  // namespace

Expected<std::vector<Object>, Result> makeObjects(AdMemberships& memberships, const AdPlan& plan,
                                                  std::vector<Entry> entries, const Deadline& deadline) {
    const std::vector<const Entry*> groups = groupsAmong(entries, plan.view);
    AdMemberships::MemberUids names;
    if (!groups.empty()) {
        auto found = memberships.memberUids({plan.members, *plan.ids, plan.view.naming, deadline}, groups);
        if (!found) return vorn::unexpected(resultOf(found.error()));
        names = std::move(*found);
    }
    const Part part = plan.place.kind == Place::Kind::Catalog ? Part::OfCatalog : Part::Whole;
    std::vector<Object> objects;
    std::size_t group = 0;
    for (Entry& entry : entries) {
        const bool isGroup = group < groups.size() && groups[group] == &entry;
        const std::vector<std::string>* members = isGroup ? &names[group++] : nullptr;
        plan.schema->removeSecrets(entry.attributes);
        objects.push_back(makeObject(entry, plan.view, *plan.ids, members, part));
    }
    return objects;
}

Expected<AdFound, Result> runAdSearch(const AdSource& source, AdPlan plan, const Deadline& deadline) {
    auto opened = source.network.open(plan.place, searchOf(plan), deadline);
    if (!opened) return vorn::unexpected(resultOf(opened.error()));
    AdFound found;
    found.first.total = opened->first.size();
    auto objects = makeObjects(source.memberships, plan, std::move(opened->first), deadline);
    if (!objects) return vorn::unexpected(objects.error());
    found.first.objects = std::move(*objects);
    if (opened->rest)
        found.rest =
            std::make_unique<AdCursor>(source, std::move(plan), std::move(opened->rest), found.first.total);
    return found;
}

}  // namespace vexagent
