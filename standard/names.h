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

// The real DN of what is shown by a name that the directory itself does not know: it is
// renamed, or the name is written in another form. Letters composed and decomposed, and one
// blank and several, are the same to clients. Empty if there is no such object; *code: VEX_OK,
// or why it could not be told. Asks the agent once for each level that may be written
// otherwise, so after the name itself was asked for.
std::string realDn(const std::string& shown, const Kinds& kinds, vexCode* code);

}  // namespace standard
