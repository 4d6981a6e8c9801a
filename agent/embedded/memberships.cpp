// SPDX-License-Identifier: Apache-2.0
#include "agent/embedded/memberships.h"

#include "agent/embedded/zone.h"

namespace vexagent {

Memberships::Names Memberships::of(Handle& handle, const ldb_message* group, Naming naming) {
    // Read before the members are: a change in between makes the entry outdated
    // at once, never wrong for long.
    const std::optional<std::uint64_t> sequence = handle.sequence();
    std::string key(naming == Naming::Hosts ? "h" : "a");
    key += firstValue(group, "objectGUID");
    if (Names known = find(sequence, key)) return known;
    auto names = std::make_shared<const std::vector<std::string>>(memberUids(handle, group, naming));
    keep(sequence, key, names);
    return names;
}

Memberships::Names Memberships::find(std::optional<std::uint64_t> sequence, const std::string& key) {
    const auto known = m_known.lock();
    if (!sequence || sequence != known->sequence) return nullptr;
    const auto group = known->groups.find(key);
    return group == known->groups.end() ? nullptr : group->second;
}

void Memberships::keep(std::optional<std::uint64_t> sequence, const std::string& key, const Names& names) {
    const auto known = m_known.lock();
    if (!sequence || (known->sequence && *known->sequence > *sequence)) return;
    if (known->sequence != sequence || known->count + names->size() > kMaxNames) *known = {sequence, {}, 0};
    if (known->groups.emplace(key, names).second) known->count += names->size();
}

}  // namespace vexagent
