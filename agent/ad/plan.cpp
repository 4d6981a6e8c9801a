// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/plan.h"

#include "agent/ad/filters.h"
#include "agent/ad/objects.h"
#include "agent/directory/identifiers.h"
#include "agent/directory/member_groups.h"
#include "vorn/dn.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

constexpr int kSubordinate = 3;         // RFC 4511 does not know it, and neither do controllers
constexpr std::size_t kMostNames = 64;  // whose groups one filter asks for

// A context that knows DNs and nothing else.
ldb_context* dnContext() {
    thread_local const Talloc<ldb_context> context = newLdb();
    return context.get();
}

Result noSuchBase() {
    return resultOf(LdapFailure(LDAP_NO_SUCH_OBJECT, ""));
}

// What is inside "<GUID=...>", empty where that is no GUID; nothing for another base.
std::optional<std::string> guidBase(const std::string& base) {
    if (!vorn::startsWithIgnoreCase(base, "<GUID=") || base.back() != '>') return std::nullopt;
    return guidText(guidBytes(std::string_view(base).substr(6, base.size() - 7)).value_or(""));
}

// The base that the place is asked for; nothing for one that cannot be there.
std::optional<std::string> baseOf(const std::string& asked, const Place& place) {
    // The catalog has no root of its own: nothing above all its domains.
    if (asked.empty())
        return place.kind == Place::Kind::Domain ? vorn::DN::dnFromDomain(place.name) : std::string();
    if (const auto guid = guidBase(asked))
        return guid->empty() ? std::nullopt : std::optional("<GUID=" + *guid + ">");
    return vorn::DN::isDN(asked) ? std::optional(asked) : std::nullopt;
}

// What a filter's assertions mean. All of it is asked while the filter is made.
FilterContext rulesFor(const AdPlan& plan, const std::string& forest, MemberGroups& groups) {
    FilterContext rules;
    rules.ldb = dnContext();
    rules.schema = plan.schema.get();
    rules.rootDn = forest;
    rules.first = [&plan, &groups](void* pool, ParseTree*& tree) {
        std::optional<Selection> decided;
        if (plan.view.zone)
            decided =
                rewriteMemberAssertion(pool, tree, [&](std::string_view name) { return groups.of(name); });
        if (!decided && plan.ids->enabled()) decided = rewriteIdAssertion(pool, tree, *plan.ids);
        return decided;
    };
    return rules;
}

}  // namespace

bool leadsToFew(const std::string& filter) {
    const Pool pool = newPool();
    ParseTree* tree = nullptr;
    return !parseFilter(pool.get(), filter, tree).ok() || isQuickAdFilter(tree);
}

Expected<std::shared_ptr<const Ids>, Result> Planner::idsOf(const Place& domain, const Deadline& deadline) {
    if (!m_options.ids.fromSid) return std::make_shared<const Ids>(m_options.ids, "");
    const auto info = m_network.describe(domain, deadline);
    if (!info) return vorn::unexpected(resultOf(info.error()));
    return std::make_shared<const Ids>(m_options.ids, (*info)->sid);
}

Expected<AdPlan, Result> Planner::one(const View& view, const Place& place, const Deadline& deadline) {
    AdPlan plan{place, place.kind == Place::Kind::Catalog ? m_domains.joined() : place};
    auto ids = idsOf(plan.members, deadline);
    if (!ids) return vorn::unexpected(ids.error());
    auto schema = m_schema.get(deadline);
    if (!schema) return vorn::unexpected(resultOf(schema.error()));
    plan.ids = std::move(*ids);
    plan.schema = std::move(*schema);
    plan.view = plan.schema->resolve(view);
    plan.search.attributes = attributesFor(plan.view, *plan.ids);
    return plan;
}

Expected<AdPlan, Result> Planner::search(const Query& query, const Place& place, const Deadline& deadline) {
    auto plan = one(query.view, place, deadline);
    if (!plan) return plan;
    plan->typed = query.typed;
    plan->firstBatch = query.firstBatch;
    if (const auto filter = addFilter(query, deadline, *plan); !filter)
        return vorn::unexpected(filter.error());
    if (const auto base = addBase(query, deadline, *plan); !base) return vorn::unexpected(base.error());
    return plan;
}

Expected<Done, Result> Planner::addFilter(const Query& query, const Deadline& deadline, AdPlan& plan) {
    const auto info = m_network.describe(plan.members, deadline);
    if (!info) return vorn::unexpected(resultOf(info.error()));
    MemberGroups groups(
        [&](const std::string& name, std::vector<std::string>& guids) {
            auto found = m_memberships.groupsOf({plan.members, *plan.ids, plan.view.naming, deadline}, name);
            if (!found) return resultOf(found.error());
            guids = std::move(*found);
            return Result();
        },
        kMostNames);
    const auto filter = makeAdFilter(query, rulesFor(plan, (*info)->forest, groups));
    if (!filter) return vorn::unexpected(filter.error());
    if (!groups.result().ok()) return vorn::unexpected(groups.result());
    plan.nothing = !filter->has_value();
    plan.search.filter = filter->value_or("");
    plan.search.extent = leadsToFew(plan.search.filter) ? Extent::Any : Extent::Many;
    return Done();
}

Expected<Done, Result> Planner::addBase(const Query& query, const Deadline& deadline, AdPlan& plan) {
    auto base = baseOf(query.base, plan.place);
    if (!base) return vorn::unexpected(noSuchBase());
    plan.search.base = std::move(*base);
    plan.search.scope = query.scope == kSubordinate ? LDAP_SCOPE_SUBTREE : query.scope;
    if (query.scope != kSubordinate) return Done();
    auto without = readBase(plan.place, plan.search.base, deadline);
    if (!without) return vorn::unexpected(without.error());
    plan.without = std::move(*without);
    return Done();
}

Expected<std::string, Result> Planner::readBase(const Place& place, const std::string& base,
                                                const Deadline& deadline) {
    auto found = readOne(m_network, place, {base, LDAP_SCOPE_BASE, "(objectClass=*)", {"1.1"}}, deadline);
    if (!found) return vorn::unexpected(resultOf(found.error()));
    if (found->empty()) return vorn::unexpected(noSuchBase());
    return std::move(found->front().dn);
}

}  // namespace vexagent
