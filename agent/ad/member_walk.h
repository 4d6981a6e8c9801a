// SPDX-License-Identifier: Apache-2.0
// The way down: from groups to the people who are in them.
#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include "agent/ad/member_names.h"
#include "agent/ad/membership.h"

namespace vexagent {

// One walk down from some groups. Runs once. What it learns of people's names is
// remembered even where the walk does not come to its end: the next one goes on from there.
class MemberWalk {
  public:
    // The memory is that of the context's naming.
    MemberWalk(const WalkContext& context, MemberNames& memory) : m_context(context), m_memory(memory) {}

    // The names of the members of each of the groups, in their order.
    Expected<std::vector<std::vector<std::string>>, LdapFailure> run(const std::vector<const Entry*>& roots);

  private:
    struct Group {
        std::vector<std::string> names;    // of itself and of people
        std::vector<std::string> members;  // lower-case DNs
        std::string rid;                   // where it is one of this domain
    };
    using NamesByRid = std::unordered_map<std::string, std::vector<std::string>>;

    void addGroup(const Entry& entry);
    void addMember(Group& group, const std::string& member);
    std::string ridOf(const Entry& entry) const;
    bool isKnown(const std::string& dn) const { return m_people.count(dn) != 0 || m_groups.count(dn) != 0; }
    bool isOfDomain(const std::string& dn) const { return dn.ends_with(m_suffix); }
    Expected<Done, LdapFailure> readLevel();
    Expected<Done, LdapFailure> addEntries(const std::vector<Entry>& entries);
    void keep(const std::string& dn, const std::string& name);
    Expected<Done, LdapFailure> readPrimaries();
    Expected<NamesByRid, LdapFailure> askForPrimaries(const std::vector<std::string>& rids);
    std::vector<std::string> collect(const std::string& root) const;

    const WalkContext m_context;
    MemberNames& m_memory;
    std::shared_ptr<const DomainInfo> m_info;
    std::string m_suffix;                                    // of the domain's DNs, in lower case
    std::unordered_map<std::string, Group> m_groups;         // by lower-case DN, as all
    std::unordered_map<std::string, std::string> m_people;   // their names
    std::unordered_map<std::string, std::string> m_unknown;  // to their DNs
};

}  // namespace vexagent
