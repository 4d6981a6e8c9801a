// SPDX-License-Identifier: Apache-2.0
// Text helpers. Letters are ASCII letters: what is not ASCII is left alone, so
// the result never depends on the locale.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace vorn {

constexpr char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

std::string lower(std::string_view text);
std::string upper(std::string_view text);

bool equalsIgnoreCase(std::string_view a, std::string_view b);
bool startsWithIgnoreCase(std::string_view text, std::string_view prefix);

// Orders text without regard to case; transparent, for ordered maps.
struct StringCaseLessThan {
    using is_transparent = void;
    bool operator()(std::string_view a, std::string_view b) const;
};

// Hashes and compares text without regard to case; transparent, for unordered maps.
struct StringCaseHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const;
};
struct StringCaseEqual {
    using is_transparent = void;
    bool operator()(std::string_view a, std::string_view b) const { return equalsIgnoreCase(a, b); }
};

// A number in the given base, 2 to 36, with lower-case digits. Throws
// std::invalid_argument for another base.
std::string itoa(long value, int base);

// Whether list holds text; a false caseSensitive compares without regard to case.
bool stringInList(const std::vector<std::string>& list, std::string_view text, bool caseSensitive);

// Whether a value can stand in an LDIF line as it is: the SAFE-STRING of
// RFC 2849, where a trailing blank counts as unsafe too (its note 8 advises
// base64 for it), and so do all control bytes. Empty text is safe.
bool isprintable(std::string_view value);

// The value with every byte that is not printable ASCII, and every backslash,
// written as a backslash and two lower-case hexadecimal digits.
std::string printable(std::string_view value);

}  // namespace vorn
