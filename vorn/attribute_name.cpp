// SPDX-License-Identifier: Apache-2.0
#include "vorn/attribute_name.h"

#include <algorithm>

#include "vorn/strings.h"

namespace vorn {
namespace {

constexpr std::string_view kOid = "OID.";

// Function objects, which the algorithms below can take in: each name of a filter passes
// through here.
constexpr auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
constexpr auto isLetter = [](char c) { return lower(c) >= 'a' && lower(c) <= 'z'; };
constexpr auto isKeyChar = [](char c) { return isLetter(c) || isDigit(c) || c == '-'; };

bool isWord(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), isKeyChar);
}

// Numbers with single full stops between them, two at least.
bool isNumericOid(std::string_view text) {
    std::size_t numbers = 0;
    for (;;) {
        const std::size_t digits =
            static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), isDigit) - text.begin());
        if (digits == 0 || (digits > 1 && text[0] == '0')) return false;
        ++numbers;
        if (digits == text.size()) return numbers > 1;
        if (text[digits] != '.') return false;
        text.remove_prefix(digits + 1);
    }
}

std::string_view withoutPrefix(std::string_view name) {
    return startsWithIgnoreCase(name, kOid) ? name.substr(kOid.size()) : name;
}

}  // namespace

std::string_view withoutOptions(std::string_view name) {
    return name.substr(0, name.find(';'));
}

bool isNumericName(std::string_view name) {
    return !name.empty() && (isDigit(name[0]) || startsWithIgnoreCase(name, kOid));
}

std::string_view numberOf(std::string_view name) {
    return withoutOptions(withoutPrefix(name));
}

bool isAttributeName(std::string_view text) {
    const std::string_view rest = withoutPrefix(text);
    return isAttributeDescription(rest) && (rest.size() == text.size() || isDigit(rest[0]));
}

bool isAttributeDescription(std::string_view text) {
    const std::string_view bare = withoutOptions(text);
    const bool isNamed = isWord(bare) && isLetter(bare[0]);
    if (!isNamed && !isNumericOid(bare)) return false;
    for (std::string_view rest = text.substr(bare.size()); !rest.empty();) {
        rest.remove_prefix(1);  // the semicolon
        const std::string_view option = withoutOptions(rest);
        if (!isWord(option)) return false;
        rest.remove_prefix(option.size());
    }
    return true;
}

}  // namespace vorn
