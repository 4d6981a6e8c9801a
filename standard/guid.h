// SPDX-License-Identifier: Apache-2.0
// GUIDs as Active Directory stores them, and the UUIDs of LDAP that they are.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace standard {

// The 16 bytes of objectGUID: of its numbers the first three have their lowest byte first.
// Takes a UUID's 16 bytes in RFC 4122's order, which is slapd's normal form of one, or its
// text; nothing for anything else.
std::optional<std::string> guidOfUuid(std::string_view uuid);

// The text of the UUID that a GUID's 16 bytes are; empty for anything else.
std::string uuidOfGuid(std::string_view guid);

}  // namespace standard
