// SPDX-License-Identifier: Apache-2.0
// Where the entries below a shown name are, in the directory's own names.
#pragma once

#include <string>

#include "standard/kinds.h"
#include "standard/object_search.h"

#include "backend/base/slapd_fwd.h"

namespace standard {

// Whether the "cn=" of a DN of some kind is another value than the directory's own.
bool someAreRenamed(const Kinds& kinds);

// The question for what a filter finds in a scope of a shown base. It may find more: what
// is outside of the scope.
AgentQuestion placedQuestion(const std::string& filter, const std::string& base, int scope,
                             const Kinds& kinds);

}  // namespace standard
