// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/stored_members.h"

#include <algorithm>

#include "agent/ad/membership.h"
#include "vorn/dn.h"

namespace vexagent {
namespace {

constexpr milliseconds kLeastTime{100};

}  // namespace

std::shared_ptr<StoredMembers::Stored> StoredMembers::of(const Place& domain) {
    const std::lock_guard lock(m_mutex);
    std::shared_ptr<Stored>& place = m_stored[domain.name];
    if (!place) place = std::make_shared<Stored>();
    return place;
}

Expected<Done, LdapFailure> StoredMembers::read(const Place& domain, const Deadline& deadline,
                                                Stored& stored) {
    const vorn::SteadyClock& clock = m_network.clock();
    const Moment start = clock.now();
    const auto groups = readAll(m_network, domain,
                                {{vorn::DN::dnFromDomain(domain.name),
                                  LDAP_SCOPE_SUBTREE,
                                  "(&(objectCategory=group)(memberUid=*))",
                                  {"memberUid", "objectGUID"}}},
                                deadline);
    if (!groups) return vorn::unexpected(groups.error());
    stored.groups.clear();
    for (const Entry& group : *groups)
        for (const std::string& name : valuesOf(group, "memberUid"))
            stored.groups.emplace(name, group.first("objectGUID"));
    const Moment end = clock.now();
    stored.until = end + std::max<Moment::duration>(kReadRarely * (end - start), kLeastTime);
    return Done();
}

Expected<std::vector<std::string>, LdapFailure> StoredMembers::groupsOf(const Place& domain,
                                                                        const std::string& memberUid,
                                                                        const Deadline& deadline) {
    const std::shared_ptr<Stored> stored = of(domain);
    const std::lock_guard lock(stored->mutex);
    if (stored->until < m_network.clock().now())
        if (const auto done = read(domain, deadline, *stored); !done) return vorn::unexpected(done.error());
    std::vector<std::string> guids;
    const auto [first, last] = stored->groups.equal_range(memberUid);
    for (auto group = first; group != last; ++group) guids.push_back(group->second);
    return guids;
}

}  // namespace vexagent
