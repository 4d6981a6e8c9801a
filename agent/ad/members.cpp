// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/members.h"

#include "agent/ad/group_walk.h"
#include "agent/ad/member_walk.h"

namespace vexagent {

WalkContext AdMemberships::walk(const Request& request) const {
    return {m_network, request.domain, request.ids, request.naming, request.deadline, m_mostGroups};
}

Expected<AdMemberships::MemberUids, LdapFailure> AdMemberships::memberUids(
    const Request& request, const std::vector<const Entry*>& groups) {
    MemberNames& names = request.naming == Naming::Hosts ? m_hostNames : m_accountNames;
    return MemberWalk(walk(request), names).run(groups);
}

Expected<std::vector<std::string>, LdapFailure> AdMemberships::groupsOf(const Request& request,
                                                                        const std::string& name) {
    auto guids = GroupWalk(walk(request)).run(name);
    if (!guids) return guids;
    const auto stored = m_stored.groupsOf(request.domain, name, request.deadline);
    if (!stored) return vorn::unexpected(stored.error());
    guids->insert(guids->end(), stored->begin(), stored->end());
    sortOnce(*guids);
    return guids;
}

}  // namespace vexagent
