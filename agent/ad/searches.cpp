// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/searches.h"

#include <map>
#include <string_view>

#include "agent/ad/filters.h"
#include "agent/ad/names.h"
#include "agent/ad/objects.h"
#include "agent/directory/filter_shape.h"
#include "agent/directory/identifiers.h"
#include "vorn/dn.h"

namespace vexagent {
namespace {

Result noSuchDn() {
    return Result::ldap(VEX_NO_SUCH_OBJECT, LDAP_NO_SUCH_OBJECT, "no object has this DN");
}

Result noSuchGuid() {
    return Result::ldap(VEX_OBJECT_GONE, LDAP_NO_SUCH_OBJECT, "no object has this GUID");
}

// A DN that does not exist may be a rewritten one of a domain.
bool mayBeRewritten(const Query& query, const Place& place, const Result& result) {
    return result.code == VEX_NO_SUCH_OBJECT && query.scope == LDAP_SCOPE_BASE &&
           place.kind == Place::Kind::Domain;
}

std::vector<std::string> bytesOfGuids(const std::vector<std::string>& guids) {
    std::vector<std::string> all;
    for (const std::string& guid : guids)
        if (const auto bytes = guidBytes(guid)) all.push_back(*bytes);
    return all;
}

// The entries of these GUIDs, as far as they are there, but for groups that show members.
std::vector<Entry> inOrderOf(const std::vector<std::string>& guids, const std::vector<Entry>& entries,
                             const View& view) {
    std::map<std::string_view, const Entry*> byGuid;
    for (const Entry& entry : entries)
        if (!showsMembers(entry, view)) byGuid.emplace(entry.first("objectGUID"), &entry);
    std::vector<Entry> ordered;
    for (const std::string& guid : guids)
        if (const auto found = byGuid.find(guid); found != byGuid.end()) ordered.push_back(*found->second);
    return ordered;
}

}  // namespace

Searches::Searches(Network& network, const AdOptions& options, Domains& domains)
    : m_network(network),
      m_options(options),
      m_domains(domains),
      m_memberships(network, options.mostGroups),
      m_planner(network, options, domains, m_memberships) {}

bool Searches::isQuick(int scope, const std::string& filter) {
    return shapeOf(filter).size <= kMostForQuick && (scope == LDAP_SCOPE_BASE || leadsToFew(filter));
}

Expected<AdFound, Result> Searches::search(const Query& query) {
    const Deadline end = deadline();
    const auto place =
        query.domain == kForest ? m_domains.catalog(end) : m_domains.existing(query.domain, end);
    if (!place) return vorn::unexpected(place.error());
    auto plan = m_planner.search(query, *place, end);
    if (!plan) return vorn::unexpected(plan.error());
    if (plan->nothing) return findNothing(*plan, end);
    auto found = runAdSearch(source(), *plan, end);
    if (found || !mayBeRewritten(query, *place, found.error())) return found;
    return searchRewritten(std::move(*plan), query.base, found.error(), end);
}

// Nothing can match. Whether the base is there is told all the same.
Expected<AdFound, Result> Searches::findNothing(const AdPlan& plan, const Deadline& deadline) {
    if (plan.search.base.empty()) return AdFound();
    const auto base = m_planner.readBase(plan.place, plan.search.base, deadline);
    if (!base) return vorn::unexpected(base.error());
    return AdFound();
}

Expected<AdFound, Result> Searches::searchRewritten(AdPlan plan, const std::string& dn, const Result& missing,
                                                    const Deadline& deadline) {
    const NameFinder finder(m_network, plan.place, m_options, {"1.1"}, deadline);
    auto named = finder.byDn(dn, NameFinder::Rewritten::IfNotReal);
    if (!named) return vorn::unexpected(resultOf(named.error()));
    if (named->only() == nullptr) return vorn::unexpected(missing);
    plan.search.base = named->only()->dn;
    return runAdSearch(source(), std::move(plan), deadline);
}

Expected<Object, Result> Searches::show(Entry entry, const AdPlan& plan, const Deadline& deadline) {
    std::vector<Entry> entries;
    entries.push_back(std::move(entry));
    auto objects = makeObjects(m_memberships, plan, std::move(entries), deadline);
    if (!objects) return vorn::unexpected(objects.error());
    return std::move(objects->front());
}

Expected<Object, Result> Searches::fetch(const std::string& domain, const std::string& dn, const View& view) {
    const Deadline end = deadline();
    const auto place = m_domains.existing(domain == kForest ? vorn::DN::domainFromDN(dn) : domain, end);
    if (!place) return vorn::unexpected(place.error());
    const auto plan = m_planner.one(view, *place, end);
    if (!plan) return vorn::unexpected(plan.error());
    const NameFinder finder(m_network, *place, m_options, plan->search.attributes, end);
    auto found = finder.byDn(dn, NameFinder::Rewritten::IfNotReal);
    if (!found) return vorn::unexpected(resultOf(found.error()));
    if (found->only() == nullptr) return vorn::unexpected(noSuchDn());
    return show(std::move(*found->only()), *plan, end);
}

Expected<Object, Result> Searches::lookup(const std::string& guid, const View& view) {
    const auto bytes = guidBytes(guid);
    if (!bytes) return vorn::unexpected(noSuchGuid());
    const Deadline end = deadline();
    const auto plan = m_planner.one(view, m_domains.joined(), end);
    if (!plan) return vorn::unexpected(plan.error());
    const LdapSearch wanted = {"<GUID=" + guidText(*bytes) + ">", LDAP_SCOPE_BASE, "(objectClass=*)",
                               plan->search.attributes};
    auto entries = readOne(m_network, plan->place, wanted, end);
    if (!entries && entries.error().code != LDAP_NO_SUCH_OBJECT)
        return vorn::unexpected(resultOf(entries.error()));
    if (entries && !entries->empty()) return show(std::move(entries->front()), *plan, end);
    // It may be one of another domain that a search of the forest has shown.
    const auto dn = findInForest(wanted, end);
    return dn ? fetch(kForest, *dn, view) : Expected<Object, Result>(vorn::unexpected(dn.error()));
}

std::vector<Object> Searches::lookupAhead(const std::vector<std::string>& guids, const View& view) {
    const std::vector<std::string> wanted = bytesOfGuids(guids);
    if (wanted.empty()) return {};
    // Who waits has his answer already, and could be told it by now.
    const Deadline end(m_network.clock(), m_options.timeout / 2);
    const auto plan = m_planner.one(view, m_domains.joined(), end);
    if (!plan) return {};
    const LdapSearch all = {vorn::DN::dnFromDomain(plan->place.name), LDAP_SCOPE_SUBTREE,
                            anyOf("objectGUID", wanted), plan->search.attributes, Extent::Few};
    const auto entries = readOne(m_network, plan->place, all, end);
    if (!entries) return {};
    auto objects = makeObjects(m_memberships, *plan, inOrderOf(wanted, *entries, view), end);
    return objects ? std::move(*objects) : std::vector<Object>();
}

Expected<std::string, Result> Searches::findInForest(const LdapSearch& wanted, const Deadline& deadline) {
    const auto info = m_network.describe(m_domains.joined(), deadline);
    if (info && (*info)->domains < 2) return vorn::unexpected(noSuchGuid());
    const auto catalog = m_domains.catalog(deadline);
    if (!catalog) return vorn::unexpected(catalog.error());
    auto entries = readOne(m_network, *catalog, wanted, deadline);
    const bool missing = entries ? entries->empty() : entries.error().code == LDAP_NO_SUCH_OBJECT;
    if (missing) return vorn::unexpected(noSuchGuid());
    if (!entries) return vorn::unexpected(resultOf(entries.error()));
    return std::move(entries->front().dn);
}

Expected<std::vector<std::string>, Result> Searches::supportedAttributes() {
    const auto schema = m_planner.schema(deadline());
    if (!schema) return vorn::unexpected(resultOf(schema.error()));
    std::vector<std::string> names = (*schema)->names();
    if (!names.empty()) return names;
    return vorn::unexpected(
        Result::ldap(VEX_DIRECTORY_ERROR, LDAP_OTHER, "the controller does not tell its schema"));
}

}  // namespace vexagent
