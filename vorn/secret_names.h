// SPDX-License-Identifier: Apache-2.0
// Attributes that hold secrets, known by their names.
//
// A directory's schema may know of more. What it does not mark, and what has no
// schema, is known by name and by what names of secrets sound like: an attribute too
// many that nobody sees does less harm than a password that somebody does.
#pragma once

#include <string>
#include <string_view>

namespace vorn {

// Whether the attribute holds a secret, or belongs to a database itself (its name
// begins with "@"). Without regard to case and to options (";binary"). A number
// counts as one, since it may stand for any attribute: who can resolve it asks about
// the name.
bool isSecretName(std::string_view name);

// A filter as it may be logged: "***" in the place of what is asserted of secrets.
std::string withoutSecrets(std::string_view filter);

}  // namespace vorn
