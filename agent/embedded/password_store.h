// SPDX-License-Identifier: Apache-2.0
// The only change that the agent itself makes to the embedded directory.
#pragma once

#include <ctime>
#include <string>

#include "agent/directory/ldb.h"
#include "agent/directory/result.h"

namespace vexagent {

inline constexpr char kPasswordAttribute[] = "userPassword";

// Stores a new hash in place of the account's passwords, and when that was. account is as it
// was read; nothing is stored, and LDAP's "busy" answered, if it has other passwords by now.
// All of it is written, or nothing. Each call opens the file anew, for writing.
Result storePassword(const std::string& database, const ldb_message* account, const std::string& hash,
                     std::time_t now);

}  // namespace vexagent
