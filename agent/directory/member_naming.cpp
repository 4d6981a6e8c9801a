// SPDX-License-Identifier: Apache-2.0
#include "agent/directory/member_naming.h"

#include <algorithm>

namespace vexagent {

std::string nameOfMember(const MemberFacts& person, Naming naming) {
    if (naming == Naming::Hosts) {
        if (!person.numbered) return {};
        return std::string(person.uid.empty() ? person.accountName : person.uid);
    }
    std::string name(person.accountName);
    if (!name.empty() && !person.numbered) name.insert(name.begin(), kUnnumbered);
    return name;
}

std::string_view withoutMark(std::string_view name) {
    return !name.empty() && name.front() == kUnnumbered ? name.substr(1) : name;
}

void addMembers(const std::vector<std::string>& names, Object& object) {
    // In order, they come first.
    const auto numbered = std::find_if(names.begin(), names.end(), [](const std::string& name) {
        return name.empty() || name.front() != kUnnumbered;
    });
    if (numbered != names.end()) object.push_back({"memberUid", {numbered, names.end()}});
    if (numbered == names.begin()) return;
    object.push_back({kUnnumberedMember, {}});
    for (auto name = names.begin(); name != numbered; ++name)
        object.back().values.emplace_back(withoutMark(*name));
}

}  // namespace vexagent
