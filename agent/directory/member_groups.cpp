// SPDX-License-Identifier: Apache-2.0
#include "agent/directory/member_groups.h"

#include <ldap.h>

namespace vexagent {
namespace {

Result tooMany(const char* what) {
    return Result::ldap(VEX_REFUSED, LDAP_ADMINLIMIT_EXCEEDED,
                        std::string("the search filter asks for the groups of too many ") + what);
}

}  // namespace

std::vector<std::string> MemberGroups::of(std::string_view name) {
    auto known = m_known.find(name);
    if (m_result.ok() && known == m_known.end()) {
        if (m_known.size() >= m_mostNames) {
            m_result = tooMany("people");
        } else {
            known = m_known.emplace(name, std::vector<std::string>()).first;
            m_result = m_resolve(known->first, known->second);
        }
    }
    if (!m_result.ok()) return {};
    m_guids += known->second.size();
    if (m_guids > kMostGuids) m_result = tooMany("groups' members");
    return m_result.ok() ? known->second : std::vector<std::string>();
}

}  // namespace vexagent
