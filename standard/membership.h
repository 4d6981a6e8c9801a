// SPDX-License-Identifier: Apache-2.0
// Who is in which group, by the names that clients see.
#pragma once

#include <string>
#include <vector>

#include "standard/question.h"
#include "standard/shown_entry.h"
#include "vex/vex.h"

#include "backend/base/slapd_fwd.h"

namespace standard {

// The shown DNs of the people whose names a group shows as memberUid, in their order.
vexCode memberDns(Operation* op, const AgentObject& group, std::vector<std::string>* dns);

// The shown DNs of the groups that show a person as memberUid.
vexCode groupDns(Operation* op, const AgentObject& person, std::vector<std::string>* dns);

// What filters assert of member, memberOf and memberUid, in the agent's terms.
Resolver membershipResolver();

}  // namespace standard
