// SPDX-License-Identifier: Apache-2.0
// Where the entries below a shown name are, in the directory's own names.
#pragma once

#include <string>
#include <string_view>

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

// The directory's own spelling of a shown DN, for one whose letters outside of ASCII it
// does not recognize: composed and decomposed ones are the same to clients. Empty if there is
// no such entry; *code: VEX_OK, or why it could not be told.
std::string realDn(const std::string& shown, const Kinds& kinds, vexCode* code);

// Whether the text has no letters outside of ASCII.
bool isAscii(std::string_view text);

}  // namespace standard
