// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/members.h"

#include "agent/ad/group_walk.h"
#include "agent/ad/member_walk.h"

namespace vexagent {

Expected<AdMemberships::MemberUids, LdapFailure> AdMemberships::memberUids(
    const Place& domain, const Ids& ids, const std::vector<const Entry*>& groups, const Deadline& deadline) {
    return MemberWalk({m_network, domain, deadline, m_mostGroups}, ids, m_names).run(groups);
}

Expected<std::vector<std::string>, LdapFailure> AdMemberships::groupsOf(const Place& domain, const Ids& ids,
                                                                        const std::string& memberUid,
                                                                        const Deadline& deadline) {
    GroupWalk walk({m_network, domain, deadline, m_mostGroups}, ids);
    auto guids = walk.run(memberUid);
    if (!guids) return guids;
    const auto stored = m_stored.groupsOf(domain, memberUid, deadline);
    if (!stored) return vorn::unexpected(stored.error());
    guids->insert(guids->end(), stored->begin(), stored->end());
    sortOnce(*guids);
    return guids;
}

}  // namespace vexagent
