// SPDX-License-Identifier: Apache-2.0
// GUIDs and SIDs as Active Directory stores them and as people read them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vexagent {

inline constexpr std::size_t kGuidBytes = 16;

// "3f2504e0-4f89-11d3-9a0c-0305e82c3301" for 16 stored bytes, whose first three
// fields are little-endian; empty for any other length.
std::string guidText(std::string_view bytes);

// The 16 stored bytes for the text form, in either case and with or without
// braces; nothing for any other text.
std::optional<std::string> guidBytes(std::string_view text);

// The stored bytes of a GUID made from a name: the name-based UUID of RFC 4122
// (version 5) in the X.500 name space. The same name gives the same GUID.
std::string guidFromName(std::string_view name);

// The stored bytes for "S-1-5-21-..."; nothing for any other text.
std::optional<std::string> sidBytes(std::string_view text);

// "S-1-5-21-..." for stored bytes; empty for bytes that are no SID.
std::string sidText(std::string_view bytes);

// A SID's last sub-authority, which names an account within its domain.
std::optional<std::uint32_t> sidRid(std::string_view bytes);

// The SID with another last sub-authority; empty for bytes that are no SID.
std::string sidWithRid(std::string_view bytes, std::uint32_t rid);

}  // namespace vexagent
