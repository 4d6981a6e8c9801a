#include "agent/embedded/memberships.h"

#include "agent/embedded/zone.h"

namespace vexagent {

Memberships::Names Memberships::of(Handle& handle, const ldb_message* group) {
    // Read before the members are: a change in between makes the entry outdated
    // at once, never wrong for long.
    const std::optional<std::uint64_t> sequence = handle.sequence();
    const std::string guid(firstValue(group, "objectGUID"));
    if (Names known = find(sequence, guid)) return known;
    auto names = std::make_shared<const std::vector<std::string>>(memberUids(handle, group));
    keep(sequence, guid, names);
    return names;
}

Memberships::Names Memberships::find(std::optional<std::uint64_t> sequence, const std::string& guid) {
    const std::lock_guard lock(m_mutex);
    if (!sequence || sequence != m_sequence) return nullptr;
    const auto group = m_groups.find(guid);
    return group == m_groups.end() ? nullptr : group->second;
}

void Memberships::keep(std::optional<std::uint64_t> sequence, const std::string& guid, const Names& names) {
    const std::lock_guard lock(m_mutex);
    if (!sequence || (m_sequence && *m_sequence > *sequence)) return;
    if (m_sequence != sequence || m_count + names->size() > kMaxNames) {
        m_groups.clear();
        m_count = 0;
        m_sequence = sequence;
    }
    if (m_groups.emplace(guid, names).second) m_count += names->size();
}

}  // namespace vexagent
