#include "agent/ad/members.h"

#include <algorithm>
#include <set>
#include <unordered_set>

#include "agent/ad/filters.h"
#include "agent/ad/net/ranges.h"
#include "agent/directory/identifiers.h"
#include "vex/vex.h"
#include "vorn/dn.h"
#include "vorn/numbers.h"
#include "vorn/strings.h"

namespace vexagent {

namespace {

constexpr milliseconds kRememberTime{60'000};
constexpr milliseconds kRememberNobody{10'000};
constexpr milliseconds kStoredTime{100};  // for which what is stored with groups is good, at least
constexpr int kReadRarely = 20;
constexpr std::size_t kMostPeople = 200'000;
// A controller compares every entry that it finds with every element of an OR, so
// many small searches are cheaper than one large one.
constexpr std::size_t kDnsPerSearch = 10;
// What is found is remembered after so many, also when the time does not suffice for
// all: the next request goes on from there.
constexpr std::size_t kDnsAtOnce = 1000;
constexpr std::size_t kMany = 500;          // people who have the same primary group
constexpr std::size_t kMostPrimaries = 16;  // lists of them that are remembered

const std::vector<std::string> kMemberAttributes = {"objectClass",    "objectCategory", "uid",
                                                    "sAMAccountName", "uidNumber",      "objectSid",
                                                    "primaryGroupID", "member",         "memberUid"};
const std::vector<std::string> kNameAttributes = {"objectClass",    "objectCategory", "uid",
                                                  "sAMAccountName", "uidNumber",      "objectSid"};
const std::vector<std::string> kPersonAttributes = {"objectClass",    "objectCategory", "uid",
                                                    "sAMAccountName", "uidNumber",      "objectSid",
                                                    "memberOf",       "primaryGroupID"};
const std::vector<std::string> kGroupAttributes = {"objectClass", "objectCategory", "objectGUID", "memberOf"};

// Searches for the holders of the values, a few to each.
std::vector<LdapSearch> searchesFor(const std::string& root, const char* name,
                                    const std::vector<std::string>& values,
                                    const std::vector<std::string>& attributes) {
    std::vector<LdapSearch> searches;
    for (std::size_t at = 0; at < values.size(); at += kDnsPerSearch) {
        const auto first = values.begin() + static_cast<std::ptrdiff_t>(at);
        const auto last =
            values.begin() + static_cast<std::ptrdiff_t>(std::min(at + kDnsPerSearch, values.size()));
        searches.push_back({root, LDAP_SCOPE_SUBTREE, anyOf(name, {first, last}), attributes, Extent::Few});
    }
    return searches;
}

LdapStatus tooManyGroups(std::size_t most) {
    return {LDAP_ADMINLIMIT_EXCEEDED,
            "membership goes through more than " + std::to_string(most) + " groups (ad.groups.max)", false,
            false, "membership goes through too many groups"};
}

// Runs them all and completes what came in parts.
LdapStatus readAll(Domain& domain, const std::vector<LdapSearch>& searches, const Deadline& deadline,
                   std::vector<Entry>& entries) {
    return domain.run(deadline, [&](Domain::Lease& lease) {
        entries.clear();
        LdapStatus status =
            lease->searchAll(searches, deadline, [&](Entry&& entry) { entries.push_back(std::move(entry)); });
        for (Entry& entry : entries)
            if (status.ok() && hasRanges(entry)) status = readRanges(*lease, entry, deadline);
        return status;
    });
}

std::vector<std::string> values(const Entry& entry, const char* name) {
    const Attribute* attribute = entry.find(name);
    return attribute == nullptr ? std::vector<std::string>() : attribute->values;
}

void sortOnce(std::vector<std::string>& names) {
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
}

}  // namespace

// One walk down from some groups.
class MemberWalk {
  public:
    MemberWalk(AdMemberships& memory, Domain& domain, const Ids& ids, const Deadline& deadline)
        : m_memory(memory), m_domain(domain), m_ids(ids), m_deadline(deadline) {}

    LdapStatus run(const std::vector<const Entry*>& roots, std::vector<std::vector<std::string>>& names) {
        LdapStatus status = m_domain.info(m_deadline, m_info);
        if (!status.ok()) return status;
        m_suffix = "," + vorn::lower(m_info->root);
        for (const Entry* root : roots) addGroup(*root);
        while (status.ok() && !m_unknown.empty()) status = readLevel();
        if (status.ok()) status = readPrimaries();
        if (!status.ok()) return status;
        for (const Entry* root : roots) names.push_back(collect(vorn::lower(root->dn)));
        return {};
    }

  private:
    struct Group {
        std::vector<std::string> names;    // of itself and of people
        std::vector<std::string> members;  // lower-case DNs
        std::string rid;
    };

    void addGroup(const Entry& entry) {
        Group& group = m_groups[vorn::lower(entry.dn)];
        group.names = values(entry, "memberUid");
        if (const auto rid = sidRid(entry.first("objectSid"));
            rid && sidWithRid(entry.first("objectSid"), 0) == sidOfDomain())
            group.rid = std::to_string(*rid);
        for (const std::string& member : values(entry, "member")) {
            std::string dn = vorn::lower(member);
            if (m_people.count(dn) == 0 && m_groups.count(dn) == 0) {
                std::string name;
                if (!isOfDomain(dn) || m_memory.find(dn, name))
                    m_people.emplace(dn, name);
                else
                    m_unknown.emplace(dn, member);
            }
            group.members.push_back(std::move(dn));
        }
    }

    // Others' members cannot be found here.
    bool isOfDomain(const std::string& dn) const { return dn.ends_with(m_suffix); }

    std::string sidOfDomain() const {
        // The domain's SID with one more sub-authority, 0.
        std::string sid = m_info->sid;
        if (sid.size() < 8) return {};
        ++sid[1];
        return sid + std::string(4, '\0');
    }

    LdapStatus readLevel() {
        std::vector<std::string> dns;
        std::unordered_map<std::string, std::string> asked;
        while (!m_unknown.empty() && dns.size() < kDnsAtOnce) {
            dns.push_back(m_unknown.begin()->second);
            asked.insert(m_unknown.extract(m_unknown.begin()));
        }
        std::vector<Entry> entries;
        LdapStatus status =
            readAll(m_domain, searchesFor(m_info->root, "distinguishedName", dns, kMemberAttributes),
                    m_deadline, entries);
        if (!status.ok()) return status;
        for (const Entry& entry : entries) {
            const std::string dn = vorn::lower(entry.dn);
            asked.erase(dn);
            if (categoryOf(entry) == "Group") {
                if (m_groups.size() >= m_memory.m_mostGroups) return tooManyGroups(m_memory.m_mostGroups);
                addGroup(entry);
            } else {
                keep(dn, memberName(entry, m_ids));
            }
        }
        // Nobody that this directory knows.
        for (const auto& [dn, text] : asked) keep(dn, "");
        std::erase_if(m_unknown, [this](const auto& entry) {
            return m_groups.count(entry.first) != 0 || m_people.count(entry.first) != 0;
        });
        return {};
    }

    void keep(const std::string& dn, const std::string& name) {
        m_people[dn] = name;
        m_memory.keep(dn, name);
    }

    LdapStatus readPrimaries() {
        std::unordered_map<std::string, std::vector<std::string>> names;  // by RID
        std::vector<std::string> rids;
        for (const auto& [dn, group] : m_groups)
            if (!group.rid.empty() && !m_memory.findPrimaries(m_domain, group.rid, names[group.rid]))
                rids.push_back(group.rid);
        const Moment start = now();
        LdapStatus status;
        if (!rids.empty()) status = askForPrimaries(rids, names);
        if (!status.ok()) return status;
        for (const std::string& rid : rids)
            if (names[rid].size() > kMany)
                m_memory.keepPrimaries(m_domain, rid, names[rid], kReadRarely * (now() - start));
        for (auto& [dn, group] : m_groups) {
            const auto found = names.find(group.rid);
            if (found == names.end()) continue;
            group.names.insert(group.names.end(), found->second.begin(), found->second.end());
        }
        return {};
    }

    LdapStatus askForPrimaries(const std::vector<std::string>& rids,
                               std::unordered_map<std::string, std::vector<std::string>>& names) {
        std::vector<std::string> attributes = kNameAttributes;
        attributes.emplace_back("primaryGroupID");
        std::vector<LdapSearch> searches = searchesFor(m_info->root, "primaryGroupID", rids, attributes);
        for (LdapSearch& search : searches) search.extent = Extent::Many;
        return m_domain.run(m_deadline, [&](Domain::Lease& lease) {
            for (const std::string& rid : rids) names[rid].clear();
            return lease->searchAll(searches, m_deadline, [&](Entry&& person) {
                std::string name = memberName(person, m_ids);
                const auto group = names.find(std::string(person.first("primaryGroupID")));
                if (group != names.end() && !name.empty()) group->second.push_back(std::move(name));
            });
        });
    }

    std::vector<std::string> collect(const std::string& root) {
        std::vector<std::string> names;
        std::unordered_set<std::string> seen = {root};
        std::vector<std::string> pending = {root};
        while (!pending.empty()) {
            const auto group = m_groups.find(pending.back());
            pending.pop_back();
            if (group == m_groups.end()) continue;
            names.insert(names.end(), group->second.names.begin(), group->second.names.end());
            for (const std::string& dn : group->second.members) {
                if (const auto person = m_people.find(dn); person != m_people.end()) {
                    if (!person->second.empty()) names.push_back(person->second);
                } else if (seen.insert(dn).second) {
                    pending.push_back(dn);
                }
            }
        }
        sortOnce(names);
        return names;
    }

    AdMemberships& m_memory;
    Domain& m_domain;
    const Ids& m_ids;
    const Deadline m_deadline;
    std::shared_ptr<const DomainInfo> m_info;
    std::string m_suffix;                                    // of the domain's DNs, in lower case
    std::unordered_map<std::string, Group> m_groups;         // by lower-case DN, as all
    std::unordered_map<std::string, std::string> m_people;   // their names
    std::unordered_map<std::string, std::string> m_unknown;  // to their DNs
};

bool AdMemberships::find(const std::string& dn, std::string& name) {
    const std::lock_guard lock(m_mutex);
    const auto known = m_people.find(dn);
    if (known == m_people.end() || known->second.until < now()) return false;
    name = known->second.name;
    return true;
}

bool AdMemberships::findPrimaries(const Domain& domain, const std::string& rid,
                                  std::vector<std::string>& names) {
    const std::lock_guard lock(m_mutex);
    const auto known = m_primaries.find(domain.name() + " " + rid);
    if (known == m_primaries.end() || known->second.until < now()) return false;
    names = known->second.names;
    return true;
}

void AdMemberships::keepPrimaries(const Domain& domain, const std::string& rid,
                                  const std::vector<std::string>& names, Moment::duration time) {
    const std::lock_guard lock(m_mutex);
    if (m_primaries.size() >= kMostPrimaries) m_primaries.clear();
    m_primaries[domain.name() + " " + rid] = {names, now() + time};
}

void AdMemberships::keep(const std::string& dn, const std::string& name) {
    const std::lock_guard lock(m_mutex);
    if (m_people.size() >= kMostPeople) m_people.clear();
    m_people[dn] = {name, now() + (name.empty() ? kRememberNobody : kRememberTime)};
}

LdapStatus AdMemberships::memberUids(Domain& domain, const Ids& ids, const std::vector<const Entry*>& groups,
                                     const Deadline& deadline, std::vector<std::vector<std::string>>& names) {
    return MemberWalk(*this, domain, ids, deadline).run(groups, names);
}

namespace {

// One walk up from some people.
class GroupWalk {
  public:
    GroupWalk(Domain& domain, const std::string& root, std::size_t most, const Deadline& deadline)
        : m_domain(domain), m_root(root), m_most(most), m_deadline(deadline) {}

    void addPerson(const Entry& person) {
        addParents(person);
        const auto rid = vorn::parseNumber<std::uint32_t>(person.first("primaryGroupID"));
        std::string sid = sidWithRid(person.first("objectSid"), rid.value_or(0));
        if (rid.value_or(0) != 0 && !sid.empty()) m_sids.push_back(std::move(sid));
    }

    LdapStatus run(std::vector<std::string>& guids) {
        while (!m_dns.empty() || !m_sids.empty()) {
            std::vector<LdapSearch> searches = searchesFor(m_root, "objectSid", m_sids, kGroupAttributes);
            for (LdapSearch& search : searchesFor(m_root, "distinguishedName", m_dns, kGroupAttributes))
                searches.push_back(std::move(search));
            m_sids.clear();
            m_dns.clear();
            std::vector<Entry> groups;
            LdapStatus status = readAll(m_domain, searches, m_deadline, groups);
            if (!status.ok()) return status;
            for (const Entry& group : groups) {
                if (categoryOf(group) != "Group") continue;
                if (!m_guids.emplace(group.first("objectGUID")).second) continue;
                if (m_guids.size() > m_most) return tooManyGroups(m_most);
                m_seen.insert(vorn::lower(group.dn));
                addParents(group);
            }
        }
        guids.assign(m_guids.begin(), m_guids.end());
        return {};
    }

  private:
    void addParents(const Entry& entry) {
        for (std::string& dn : values(entry, "memberOf"))
            if (m_seen.insert(vorn::lower(dn)).second) m_dns.push_back(std::move(dn));
    }

    Domain& m_domain;
    const std::string m_root;
    const std::size_t m_most;
    const Deadline m_deadline;
    std::vector<std::string> m_dns;   // of groups to be read
    std::vector<std::string> m_sids;  // likewise
    std::unordered_set<std::string> m_seen;
    std::set<std::string> m_guids;
};

}  // namespace

LdapStatus AdMemberships::groupsOf(Domain& domain, const Ids& ids, const std::string& memberUid,
                                   const Deadline& deadline, std::vector<std::string>& guids) {
    std::shared_ptr<const DomainInfo> info;
    LdapStatus status = domain.info(deadline, info);
    GroupWalk walk(domain, info ? info->root : "", m_mostGroups, deadline);
    bool found = false;
    for (const char* attribute : {"sAMAccountName", "uid"}) {
        if (!status.ok() || found || memberUid.empty()) break;
        std::vector<Entry> people;
        status = readAll(domain, searchesFor(info->root, attribute, {memberUid}, kPersonAttributes), deadline,
                         people);
        for (const Entry& person : people) {
            if (!status.ok() || memberName(person, ids) != memberUid) continue;
            walk.addPerson(person);
            found = true;
        }
    }
    if (status.ok()) status = walk.run(guids);
    return status.ok() ? addStored(domain, memberUid, deadline, guids) : status;
}

LdapStatus AdMemberships::addStored(Domain& domain, const std::string& memberUid, const Deadline& deadline,
                                    std::vector<std::string>& guids) {
    std::shared_ptr<Stored> stored;
    {
        const std::lock_guard lock(m_mutex);
        std::shared_ptr<Stored>& place = m_stored[domain.name()];
        if (!place) place = std::make_shared<Stored>();
        stored = place;
    }
    const std::lock_guard lock(stored->mutex);
    if (stored->until < now()) {
        const Moment start = now();
        std::vector<Entry> groups;
        LdapStatus status = readAll(domain,
                                    {{vorn::DN::dnFromDomain(domain.name()),
                                      LDAP_SCOPE_SUBTREE,
                                      "(&(objectCategory=group)(memberUid=*))",
                                      {"memberUid", "objectGUID"}}},
                                    deadline, groups);
        if (!status.ok()) return status;
        stored->groups.clear();
        for (const Entry& group : groups)
            for (std::string& name : values(group, "memberUid"))
                stored->groups.emplace(std::move(name), group.first("objectGUID"));
        stored->until = now() + std::max<Moment::duration>(kReadRarely * (now() - start), kStoredTime);
    }
    const auto [first, last] = stored->groups.equal_range(memberUid);
    for (auto group = first; group != last; ++group) guids.push_back(group->second);
    sortOnce(guids);
    return {};
}

}  // namespace vexagent
