// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/group_walk.h"

#include "agent/ad/objects.h"
#include "agent/directory/identifiers.h"
#include "agent/directory/member_naming.h"
#include "vorn/numbers.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

const std::vector<std::string> kPersonAttributes = {"objectClass",    "objectCategory", "uid",
                                                    "sAMAccountName", "uidNumber",      "objectSid",
                                                    "memberOf",       "primaryGroupID"};
const std::vector<std::string> kGroupAttributes = {"objectClass", "objectCategory", "objectGUID", "memberOf"};

}  // namespace

Expected<std::vector<std::string>, LdapFailure> GroupWalk::run(const std::string& memberUid) {
    const auto info = m_context.network.describe(m_context.domain, m_context.deadline);
    if (!info) return vorn::unexpected(info.error());
    m_root = (*info)->root;
    if (const auto found = findPeople(memberUid); !found) return vorn::unexpected(found.error());
    while (!m_dns.empty() || !m_sids.empty())
        if (const auto read = readLevel(); !read) return vorn::unexpected(read.error());
    return std::vector<std::string>(m_guids.begin(), m_guids.end());
}

// By the account's name, which has an index; only where nobody is found so, and it may be meant,
// by uid.
Expected<Done, LdapFailure> GroupWalk::findPeople(const std::string& memberUid) {
    if (memberUid.empty()) return Done();
    for (const char* attribute : {"sAMAccountName", "uid"}) {
        const auto found = findPeopleBy(attribute, memberUid);
        if (!found) return vorn::unexpected(found.error());
        if (*found || m_context.naming == Naming::Applications) break;
    }
    return Done();
}

Expected<bool, LdapFailure> GroupWalk::findPeopleBy(const char* attribute, const std::string& memberUid) {
    const auto people =
        readAll(m_context.network, m_context.domain,
                searchesFor(m_root, attribute, {memberUid}, kPersonAttributes), m_context.deadline);
    if (!people) return vorn::unexpected(people.error());
    bool found = false;
    for (const Entry& person : *people) {
        if (withoutMark(memberName(person, m_context.ids, m_context.naming)) != memberUid) continue;
        addPerson(person);
        found = true;
    }
    return found;
}

void GroupWalk::addPerson(const Entry& person) {
    addParents(person);
    const auto rid = vorn::parseNumber<std::uint32_t>(person.first("primaryGroupID"));
    if (!rid || *rid == 0) return;
    std::string sid = sidWithRid(person.first("objectSid"), *rid);
    if (!sid.empty()) m_sids.push_back(std::move(sid));
}

void GroupWalk::addParents(const Entry& entry) {
    for (const std::string& dn : valuesOf(entry, "memberOf"))
        if (m_seen.insert(vorn::lower(dn)).second) m_dns.push_back(dn);
}

Expected<Done, LdapFailure> GroupWalk::readLevel() {
    std::vector<LdapSearch> searches = searchesFor(m_root, "objectSid", m_sids, kGroupAttributes);
    for (LdapSearch& search : searchesFor(m_root, "distinguishedName", m_dns, kGroupAttributes))
        searches.push_back(std::move(search));
    m_sids.clear();
    m_dns.clear();
    const auto groups = readAll(m_context.network, m_context.domain, searches, m_context.deadline);
    if (!groups) return vorn::unexpected(groups.error());
    for (const Entry& group : *groups) {
        if (categoryOf(group) != "Group" || !m_guids.emplace(group.first("objectGUID")).second) continue;
        if (m_guids.size() > m_context.mostGroups)
            return vorn::unexpected(tooManyGroups(m_context.mostGroups));
        m_seen.insert(vorn::lower(group.dn));
        addParents(group);
    }
    return Done();
}

}  // namespace vexagent
