// SPDX-License-Identifier: Apache-2.0
// What is shown of an object, as an entry of slapd's.
#pragma once

#include "search/handles.h"
#include "standard/shown_entry.h"

#include "backend/base/slapd_fwd.h"

namespace standard {

// Null for a DN that slapd refuses. Values that are none of their attribute's syntax are
// left out, and so are those that equal another one by its matching rule.
SharedEntry slapdEntry(const ShownEntry& shown);

// The normal form of a DN, as slapd has it; empty for text that is none.
std::string normalDn(const std::string& dn);

}  // namespace standard
