// SPDX-License-Identifier: Apache-2.0
// What of an entry costs questions of its own, and is made only where it is wanted.
#pragma once

#include "backend/base/slapd_fwd.h"

namespace standard {

struct Extras {
    bool members = false;   // a group's member
    bool memberOf = false;  // a person's groups
};

// What slapd's access rules, of the database and of all, read of the entries that they are
// about: from now on every search wants it. Called once the schema is known, before the first
// operation. What a
// dynamic rule reads is not known.
void learnRules(const BackendDB* be);

// What who fetches an entry for one attribute wants. Null: for all of it.
Extras extrasFor(AttributeDescription* attribute);

// What a search wants: the client, its filter, or slapd's rules.
Extras extrasOf(const Operation* op);

// Whether a filter asserts anything of what is made of other objects, and changes with them.
bool isAboutOthers(const Filter* filter);

}  // namespace standard
