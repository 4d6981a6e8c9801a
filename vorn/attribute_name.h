// SPDX-License-Identifier: Apache-2.0
// The names of attributes, as LDAP clients write them (RFC 4512, 2.5).
#pragma once

#include <string_view>

namespace vorn {

// Whether this is an attribute description: a name of letters, digits and hyphens that
// begins with a letter, or numbers separated by full stops; and options, each behind a
// semicolon.
bool isAttributeDescription(std::string_view text);

// Whether it is one, or would be without "OID." in front, as Active Directory takes it.
bool isAttributeName(std::string_view text);

// Whether the attribute is called by its number: with a digit or "OID." in front.
bool isNumericName(std::string_view name);

// The name without its options.
std::string_view withoutOptions(std::string_view name);

// The number of a numeric name, without "OID." and options.
std::string_view numberOf(std::string_view name);

}  // namespace vorn
