// SPDX-License-Identifier: Apache-2.0
// What a directory's entry says of whether its account may log in.
//
// What is there and cannot be read never counts as leave.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string_view>
#include <vector>

namespace vexagent {

// The attributes that must be readable, if they are there.
inline constexpr const char* kStateAttributes[] = {"userAccountControl", "accountExpires"};

// The number that an attribute's values give: 0 where there is none, and nothing where
// they are anything but one decimal number of 64 bits.
std::optional<std::int64_t> stateNumber(const std::vector<std::string_view>& values);

// By a userAccountControl.
bool isDisabled(std::int64_t control);

// By an accountExpires.
bool hasExpired(std::int64_t expires, std::time_t time);

}  // namespace vexagent
