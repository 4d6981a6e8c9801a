// Passwords kept as crypt(3) hashes.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vexagent {

// Whether the password fits one of the stored values: a crypt(3) hash, with or
// without "{CRYPT}" before it. Values of another scheme fit nothing. Takes about
// as long when there is no value to compare with, so that the time does not tell
// whether a user exists.
bool fitsAnyHash(const std::string& password, const std::vector<std::string>& storedValues);

// Compares in a time that depends on the lengths only.
bool equalSecrets(std::string_view a, std::string_view b);

}  // namespace vexagent
