// Who is in which group: the zone's view.
//
// A controller keeps a group's members, and for each member the groups that it is
// a direct member of. The way down from groups reads the members' entries by their
// DNs, ten to a search and several searches at a time; the way up from a person
// follows memberOf level by level. Neither visits an object twice: groups may be
// members of each other. The primary group stands in neither and is added.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "agent/ad/domain.h"
#include "agent/ad/objects.h"

namespace vexagent {

// Remembers for a short while what people are called, never who is in a group.
// Safe for several threads.
class AdMemberships {
  public:
    // The memberUid values of each of the groups: those stored with it, its members',
    // those of groups within it at any depth, and of the people whose primary group
    // it is or one within it. Sorted, each once.
    LdapStatus memberUids(Domain& domain, const Ids& ids, const std::vector<const Entry*>& groups,
                          const Deadline& deadline, std::vector<std::vector<std::string>>& names);

    // The GUID bytes of the groups that show this memberUid by membership. A person
    // whose account name and login name are the same is found by an index. Only
    // where nobody is found so, the directory is searched through for the login name.
    LdapStatus groupsOf(Domain& domain, const Ids& ids, const std::string& memberUid,
                        const Deadline& deadline, std::vector<std::string>& guids);

  private:
    friend class MemberWalk;

    struct Known {
        std::string name;  // empty: does not count
        Moment until{};
    };
    bool find(const std::string& dn, std::string& name);
    void keep(const std::string& dn, const std::string& name);

    std::mutex m_mutex;
    std::unordered_map<std::string, Known> m_people;  // by lower-case DN; guarded by m_mutex
};

}  // namespace vexagent
