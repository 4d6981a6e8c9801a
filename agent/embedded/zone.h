// SPDX-License-Identifier: Apache-2.0
// The zone's view: what follows from several objects together.
//
// The database keeps a group's members and nothing in the other direction, so
// the way up from a person uses the index on member, and no walk ever visits an
// object twice: groups may be members of each other.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "agent/directory/directory.h"
#include "agent/embedded/database.h"

namespace vexagent {

// The name by which a person is a member of groups; empty for one who does not count, and for
// anything else than a person. A disabled person counts. For applications the name of
// somebody without a uidNumber begins with kUnnumbered.
std::string memberName(const ldb_message* message, Naming naming);

// The memberUid values that a group shows: those stored with it, its members',
// those of groups within it at any depth, and of the people whose primary group
// it is or one within it. Sorted, each once.
std::vector<std::string> memberUids(Handle& handle, const ldb_message* group, Naming naming);

// The GUID bytes of the groups that a member of this name is in. kUnnumbered is no part of it.
std::vector<std::string> groupsOf(Handle& handle, std::string_view name, Naming naming);

}  // namespace vexagent
