// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/member_walk.h"

#include <unordered_set>

#include "agent/ad/objects.h"
#include "agent/directory/identifiers.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

// What is found is remembered after so many, also when the time does not suffice for
// all: the next request goes on from there.
constexpr std::size_t kDnsAtOnce = 1000;

const std::vector<std::string> kNameAttributes = {"objectClass",    "objectCategory", "uid",
                                                  "sAMAccountName", "uidNumber",      "objectSid"};

std::vector<std::string> nameAttributesAnd(std::initializer_list<const char*> more) {
    std::vector<std::string> names = kNameAttributes;
    names.insert(names.end(), more.begin(), more.end());
    return names;
}

// Takes the people whose primary groups are asked for, and keeps their names only: they
// may be everybody.
class PrimariesSink final : public EntrySink {
  public:
    PrimariesSink(const WalkContext& context, const std::vector<std::string>& rids) : m_context(context) {
        for (const std::string& rid : rids) m_none[rid];
    }

    void restart() override { names = m_none; }
    void take(Entry&& person) override {
        std::string name = memberName(person, m_context.ids, m_context.naming);
        const auto group = names.find(std::string(person.first("primaryGroupID")));
        if (group != names.end() && !name.empty()) group->second.push_back(std::move(name));
    }

    std::unordered_map<std::string, std::vector<std::string>> names;

  private:
    const WalkContext& m_context;
    std::unordered_map<std::string, std::vector<std::string>> m_none;
};

}  // namespace

Expected<std::vector<std::vector<std::string>>, LdapFailure> MemberWalk::run(
    const std::vector<const Entry*>& roots) {
    const auto info = m_context.network.describe(m_context.domain, m_context.deadline);
    if (!info) return vorn::unexpected(info.error());
    m_info = *info;
    m_suffix = "," + vorn::lower(m_info->root);
    for (const Entry* root : roots) addGroup(*root);
    while (!m_unknown.empty())
        if (const auto read = readLevel(); !read) return vorn::unexpected(read.error());
    if (const auto read = readPrimaries(); !read) return vorn::unexpected(read.error());
    std::vector<std::vector<std::string>> names;
    for (const Entry* root : roots) names.push_back(collect(vorn::lower(root->dn)));
    return names;
}

void MemberWalk::addGroup(const Entry& entry) {
    Group& group = m_groups[vorn::lower(entry.dn)];
    group.names = valuesOf(entry, "memberUid");
    group.rid = ridOf(entry);
    for (const std::string& member : valuesOf(entry, "member")) addMember(group, member);
}

// The last part of a SID of this domain; empty for any other.
std::string MemberWalk::ridOf(const Entry& entry) const {
    const std::string_view sid = entry.first("objectSid");
    const auto rid = sidRid(sid);
    return rid && sid == accountSid(m_info->sid, *rid) ? std::to_string(*rid) : std::string();
}

// Others' members cannot be found here.
void MemberWalk::addMember(Group& group, const std::string& member) {
    std::string dn = vorn::lower(member);
    if (!isKnown(dn)) {
        const auto name = isOfDomain(dn) ? m_memory.find(dn) : std::string();
        if (name)
            m_people.emplace(dn, *name);
        else
            m_unknown.emplace(dn, member);
    }
    group.members.push_back(std::move(dn));
}

Expected<Done, LdapFailure> MemberWalk::readLevel() {
    std::vector<std::string> dns;
    std::unordered_map<std::string, std::string> asked;
    while (!m_unknown.empty() && dns.size() < kDnsAtOnce) {
        dns.push_back(m_unknown.begin()->second);
        asked.insert(m_unknown.extract(m_unknown.begin()));
    }
    static const std::vector<std::string> kAttributes =
        nameAttributesAnd({"primaryGroupID", "member", "memberUid"});
    const auto entries =
        readAll(m_context.network, m_context.domain,
                searchesFor(m_info->root, "distinguishedName", dns, kAttributes), m_context.deadline);
    if (!entries) return vorn::unexpected(entries.error());
    if (const auto added = addEntries(*entries); !added) return added;
    // Nobody that this directory knows.
    for (const auto& [dn, text] : asked)
        if (!isKnown(dn)) keep(dn, "");
    std::erase_if(m_unknown, [this](const auto& entry) { return isKnown(entry.first); });
    return Done();
}

Expected<Done, LdapFailure> MemberWalk::addEntries(const std::vector<Entry>& entries) {
    for (const Entry& entry : entries) {
        if (categoryOf(entry) != "Group") {
            keep(vorn::lower(entry.dn), memberName(entry, m_context.ids, m_context.naming));
        } else if (m_groups.size() >= m_context.mostGroups) {
            return vorn::unexpected(tooManyGroups(m_context.mostGroups));
        } else {
            addGroup(entry);
        }
    }
    return Done();
}

void MemberWalk::keep(const std::string& dn, const std::string& name) {
    m_people[dn] = name;
    m_memory.keep(dn, name);
}

Expected<Done, LdapFailure> MemberWalk::readPrimaries() {
    NamesByRid names;
    std::vector<std::string> unknown;
    for (const auto& [dn, group] : m_groups) {
        if (group.rid.empty() || names.count(group.rid) != 0) continue;
        auto remembered = m_memory.primaries(m_context.domain.name, group.rid);
        if (!remembered) unknown.push_back(group.rid);
        names[group.rid] = remembered ? std::move(*remembered) : std::vector<std::string>();
    }
    if (!unknown.empty()) {
        auto asked = askForPrimaries(unknown);
        if (!asked) return vorn::unexpected(asked.error());
        for (auto& [rid, people] : *asked) names[rid] = std::move(people);
    }
    for (auto& [dn, group] : m_groups)
        if (const auto found = names.find(group.rid); found != names.end())
            group.names.insert(group.names.end(), found->second.begin(), found->second.end());
    return Done();
}

Expected<MemberWalk::NamesByRid, LdapFailure> MemberWalk::askForPrimaries(
    const std::vector<std::string>& rids) {
    std::vector<LdapSearch> searches =
        searchesFor(m_info->root, "primaryGroupID", rids, nameAttributesAnd({"primaryGroupID"}));
    for (LdapSearch& search : searches) search.extent = Extent::Many;
    PrimariesSink people(m_context, rids);
    const vorn::SteadyClock& clock = m_context.network.clock();
    const Moment start = clock.now();
    const auto end = m_context.network.search(m_context.domain, searches, people, m_context.deadline);
    if (!end) return vorn::unexpected(end.error());
    for (const auto& [rid, names] : people.names)
        m_memory.keepPrimaries(m_context.domain.name, rid, names, clock.now() - start);
    return std::move(people.names);
}

std::vector<std::string> MemberWalk::collect(const std::string& root) const {
    std::vector<std::string> names;
    std::unordered_set<std::string> seen = {root};
    std::vector<std::string> pending = {root};
    while (!pending.empty()) {
        // Whoever is no person is a group that has been read.
        const Group& group = m_groups.at(pending.back());
        pending.pop_back();
        names.insert(names.end(), group.names.begin(), group.names.end());
        for (const std::string& dn : group.members) {
            const auto person = m_people.find(dn);
            if (person != m_people.end() && !person->second.empty()) names.push_back(person->second);
            if (person == m_people.end() && seen.insert(dn).second) pending.push_back(dn);
        }
    }
    sortOnce(names);
    return names;
}

}  // namespace vexagent
