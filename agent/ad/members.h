// SPDX-License-Identifier: Apache-2.0
// Who is in which group: the zone's view.
//
// A controller keeps a group's members, and for each member the groups that it is
// a direct member of. The way down from groups reads the members' entries by their
// DNs, ten to a search and several searches at a time, so that a group costs what it
// holds, however large its domain is; the way up from a person follows memberOf level
// by level. Neither visits an object twice: groups may be members of each other. The
// primary group stands in neither and is added. A walk that meets too many groups
// (ad.groups.max) fails: what it would show is not whole.
#pragma once

#include <string>
#include <vector>

#include "agent/ad/ids.h"
#include "agent/ad/member_names.h"
#include "agent/ad/membership.h"
#include "agent/ad/network.h"
#include "agent/ad/stored_members.h"

namespace vexagent {

// Remembers for a short while what people are called, and for whom a group is the
// primary one when those are many; never who else is in a group.
// Safe for several threads.
class AdMemberships {
  public:
    // mostGroups is for one walk. The network outlives it.
    AdMemberships(Network& network, std::size_t mostGroups)
        : m_network(network),
          m_mostGroups(mostGroups),
          m_hostNames(network.clock()),
          m_accountNames(network.clock()),
          m_stored(network) {}

    // Whose members are meant, and how.
    struct Request {
        const Place& domain;
        const Ids& ids;
        Naming naming;
        const Deadline& deadline;
    };

    // The names of the members of each of the groups: those stored with it, its members',
    // those of groups within it at any depth, and of the people whose primary group
    // it is or one within it. Sorted, each once.
    using MemberUids = std::vector<std::vector<std::string>>;
    Expected<MemberUids, LdapFailure> memberUids(const Request& request,
                                                 const std::vector<const Entry*>& groups);

    // The GUID bytes of the groups that a member of this name is in, by membership or because
    // the name is stored with them; sorted, each once. A person whose account name and login name
    // are the same is found by an index. Only where nobody is found so, the directory is
    // searched through for the login name.
    Expected<std::vector<std::string>, LdapFailure> groupsOf(const Request& request, const std::string& name);

  private:
    WalkContext walk(const Request& request) const;

    Network& m_network;
    const std::size_t m_mostGroups;
    MemberNames m_hostNames;
    MemberNames m_accountNames;
    StoredMembers m_stored;
};

}  // namespace vexagent
