// SPDX-License-Identifier: Apache-2.0
// Whether a client may search below an entry: slapd's access rules know a right for that.
#pragma once

#include "backend/base/slapd_fwd.h"

namespace standard {

enum class BaseAccess {
    Granted,
    Denied,
    Hidden,  // denied, and the client may not know that the entry exists
};

BaseAccess accessToBase(Operation* op, Entry* base);

// Whether the rules would say the same of every entry of this name that they say of one
// that is nothing but its name. Then the base of a search need not be fetched for them.
bool namesDecideAccess(const Operation& op);

}  // namespace standard
