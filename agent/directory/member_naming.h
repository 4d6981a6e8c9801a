// SPDX-License-Identifier: Apache-2.0
// What members of groups are called, with and without a uidNumber.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "agent/directory/directory.h"

namespace vexagent {

// Of those with a uidNumber these are memberUid. The others' attribute.
inline constexpr char kUnnumberedMember[] = "_unnumberedMember";

// The name of somebody without a uidNumber begins with this, which no name does.
inline constexpr char kUnnumbered = '\0';

struct MemberFacts {
    std::string_view uid;
    std::string_view accountName;
    bool numbered = false;  // has a uidNumber, its own or a made one
};

// The name of a person; empty for one who does not count as a member.
std::string nameOfMember(const MemberFacts& person, Naming naming);

// A name as it is, whether its owner has a number or not.
std::string_view withoutMark(std::string_view name);

// Adds a group's computed attributes, of names in order.
void addMembers(const std::vector<std::string>& names, Object& object);

}  // namespace vexagent
