// SPDX-License-Identifier: Apache-2.0
// Who looks at entries besides the client that asks for them: overlays, and access rules.
#pragma once

#include "backend/base/slapd_fwd.h"

namespace standard {

// Whether somebody may look at an attribute that the client did not ask for: an overlay, or a
// rule that judges by what is in an entry.
bool lookInside(const Operation* op);

// Whether a client that may search an attribute of one entry may search it in all of them: no
// rule is about some entries only.
bool treatEntriesAlike(const Operation* op);

// Whether the client may search all that the filter is about, where entries are treated alike;
// also false where it is about several attributes at once.
bool allowSearch(Operation* op, Entry* entry, const Filter* filter);

}  // namespace standard
