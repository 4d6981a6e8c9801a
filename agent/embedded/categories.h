// Object categories: what kind of thing an object is.
#pragma once

#include <string>
#include <string_view>

#include "agent/embedded/ldb.h"

namespace vexagent {

// The common name of the category that a class belongs to, as Active Directory
// has it: "Person" for "user", "NisNetgroup" for "nisNetgroup". A name that is
// not known is taken for a category's own.
std::string categoryOfClass(std::string_view objectClass);

// "CN=Person,CN=Schema,CN=Configuration,DC=example,DC=com".
std::string categoryDn(std::string_view category, std::string_view domainDn);

// The short name that clients see: Person, Group, Computer, nisNetgroup, or the
// common name in objectCategory, or the most specific class.
std::string shortCategory(const ldb_message* message);

// The last of the object's classes, which is its most specific; empty without one.
std::string_view specificClass(const ldb_message* message);

// Whether one of the object's classes is that of a UNIX kind: users, groups,
// computers, netgroups and the rest of RFC 2307.
bool isUnixKind(const ldb_message* message);

// Whether the object cannot be used as a UNIX entry: a person without uidNumber,
// gidNumber or unixHomeDirectory, a group without gidNumber, a computer that is
// neither such a person nor has an ipHostNumber or macAddress. Nothing else is
// ever marked.
bool isInvalidEntry(const ldb_message* message, std::string_view category);

}  // namespace vexagent
