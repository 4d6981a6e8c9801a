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

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "agent/ad/net/domain.h"
#include "agent/ad/objects.h"

namespace vexagent {

// Remembers for a short while what people are called, and for whom a group is the
// primary one when those are many; never who else is in a group.
// Safe for several threads.
class AdMemberships {
  public:
    // mostGroups is for one walk.
    explicit AdMemberships(std::size_t mostGroups) : m_mostGroups(mostGroups) {}

    // The memberUid values of each of the groups: those stored with it, its members',
    // those of groups within it at any depth, and of the people whose primary group
    // it is or one within it. Sorted, each once.
    LdapStatus memberUids(Domain& domain, const Ids& ids, const std::vector<const Entry*>& groups,
                          const Deadline& deadline, std::vector<std::vector<std::string>>& names);

    // The GUID bytes of the groups that show this memberUid, by membership or because
    // it is stored with them. A person whose account name and login name are the same
    // is found by an index. Only where nobody is found so, the directory is searched
    // through for the login name. What is stored with groups has no index either: it
    // is read as a whole, and read again once that is twenty times as long ago as it
    // took, at least.
    LdapStatus groupsOf(Domain& domain, const Ids& ids, const std::string& memberUid,
                        const Deadline& deadline, std::vector<std::string>& guids);

  private:
    friend class MemberWalk;

    struct Known {
        std::string name;  // empty: does not count
        Moment until{};
    };
    // The memberUid values stored with a domain's groups.
    struct Stored {
        std::mutex mutex;                                // held while they are read
        std::multimap<std::string, std::string> groups;  // GUID bytes by value; guarded by mutex
        Moment until{};                                  // guarded by mutex
    };
    bool find(const std::string& dn, std::string& name);
    void keep(const std::string& dn, const std::string& name);

    // The people whose primary group has this RID, where they are many: everybody, most
    // often. Remembered for twenty times as long as it took to read them.
    struct Primaries {
        std::vector<std::string> names;
        Moment until{};
    };
    bool findPrimaries(const Domain& domain, const std::string& rid, std::vector<std::string>& names);
    void keepPrimaries(const Domain& domain, const std::string& rid, const std::vector<std::string>& names,
                       Moment::duration time);

    LdapStatus addStored(Domain& domain, const std::string& memberUid, const Deadline& deadline,
                         std::vector<std::string>& guids);

    const std::size_t m_mostGroups;
    std::mutex m_mutex;
    std::unordered_map<std::string, Known> m_people;          // by lower-case DN; guarded by m_mutex
    std::map<std::string, Primaries> m_primaries;             // by domain and RID; guarded by m_mutex
    std::map<std::string, std::shared_ptr<Stored>> m_stored;  // by domain; guarded by m_mutex
};

}  // namespace vexagent
