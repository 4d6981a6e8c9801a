// SPDX-License-Identifier: Apache-2.0
// Passwords kept as crypt(3) hashes.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/directory/verdict.h"

namespace vexagent {

// Whether the password fits one of the stored values: a crypt(3) hash, with or
// without "{CRYPT}" before it. Values of another scheme fit nothing. Where no value
// can be compared with, a hash is computed all the same, by idleSetting or, when
// that is empty, of the strength of new ones: the time does not tell whether a user
// exists.
bool fitsAnyHash(const std::string& password, const std::vector<std::string_view>& storedValues,
                 const std::string& idleSetting = "");

// The same for the hashes that a directory keeps of somebody's password.
std::optional<Accepted> acceptedByHash(const std::string& password,
                                       const std::vector<std::string_view>& storedValues,
                                       const std::string& idleSetting = "");

// A new hash of the password (yescrypt, with a salt of its own); empty when none can
// be made, as for a password with a NUL.
std::string newHash(const std::string& password);

// Why a new password is not taken, and why none is changed at all.
Result badNewPassword(std::string why);
Result noPasswordChange(std::string why);

// What a stored value says about how it was made (scheme, strength, salt), without
// the hash; empty for a value that fits nothing.
std::string settingOf(std::string_view storedValue);

}  // namespace vexagent
