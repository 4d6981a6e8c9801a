// SPDX-License-Identifier: Apache-2.0
// Object categories: what kind of thing an object is.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace vexagent {

// The common name of the category that a class belongs to, as Active Directory
// has it: "Person" for "user", "NisNetgroup" for "nisNetgroup". A name that is
// not known is taken for a category's own.
std::string categoryOfClass(std::string_view objectClass);

// "CN=Person,CN=Schema,CN=Configuration,DC=example,DC=com", for the DN of the
// forest's root domain.
std::string categoryDn(std::string_view category, std::string_view rootDn);

// The short name that clients see: Person, Group, Computer, nisNetgroup, or the
// common name in the DN objectCategory, or, when that is empty, the category of
// the object's most specific class.
std::string shortCategory(std::string_view objectCategory, std::string_view specificClass);

// Whether a class is that of a UNIX kind: users, groups, computers, netgroups and
// the rest of RFC 2307. And all of them.
bool isUnixClass(std::string_view objectClass);
std::span<const std::string_view> unixClasses();

// What an object has that UNIX needs.
struct UnixFacts {
    bool uidNumber = false;
    bool gidNumber = false;
    bool home = false;     // unixHomeDirectory
    bool address = false;  // ipHostNumber or macAddress
    bool refused = false;  // its own number is one that hosts are not shown (UnixIds)
};

// Whether the object cannot be used as a UNIX entry: a person without uidNumber,
// gidNumber or unixHomeDirectory, a group without gidNumber, a computer that is
// neither such a person nor has an ipHostNumber or macAddress, and any of them whose own
// number is refused. Nothing else is ever marked.
bool isInvalidEntry(std::string_view category, const UnixFacts& facts);

}  // namespace vexagent
