// SPDX-License-Identifier: Apache-2.0
// What kind of thing a record is.
#pragma once

#include <string>
#include <string_view>

#include "agent/directory/categories.h"
#include "agent/directory/ldb.h"
#include "agent/directory/unix_ids.h"

namespace vexagent {

// The short name of the record's category.
std::string shortCategory(const ldb_message* message);

// The last of the object's classes, which is its most specific; empty without one.
std::string_view specificClass(const ldb_message* message);

// Whether one of the object's classes is that of a UNIX kind.
bool isUnixKind(const ldb_message* message);

// Whether the record cannot be used as a UNIX entry, by what it has or by its number.
bool isInvalidEntry(const ldb_message* message, std::string_view category, const UnixIds& ids);

}  // namespace vexagent
