// SPDX-License-Identifier: Apache-2.0
// Who is in which group, by the names that clients see.
#pragma once

#include <string>
#include <vector>

#include "standard/question.h"
#include "standard/shown_entry.h"
#include "vex/vex.h"

namespace standard {

// The shown DNs of the people below the suffix whose names a group shows as memberUid, in
// their order.
vexCode memberDns(const std::string& suffix, const AgentObject& group, std::vector<std::string>* dns);

// The shown DNs of the groups below the suffix that show a person as memberUid.
vexCode groupDns(const std::string& suffix, const AgentObject& person, std::vector<std::string>* dns);

// What filters assert of member, memberOf and memberUid, in the agent's terms.
Resolver membershipResolver();

}  // namespace standard
