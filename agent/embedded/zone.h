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

#include "agent/embedded/database.h"

namespace vexagent {

// The login name of a person that counts in memberUid: uid, or else
// sAMAccountName; empty for one without a uidNumber and for anything else than a
// person. A disabled person counts.
std::string memberName(const ldb_message* message);

// The memberUid values that a group shows: those stored with it, its members',
// those of groups within it at any depth, and of the people whose primary group
// it is or one within it. Sorted, each once.
std::vector<std::string> memberUids(Handle& handle, const ldb_message* group);

// The GUID bytes of the groups that show this memberUid by membership.
std::vector<std::string> groupsOf(Handle& handle, std::string_view memberUid);

}  // namespace vexagent
