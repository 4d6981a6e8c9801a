// SPDX-License-Identifier: Apache-2.0
#include "vorn/strings.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <limits>
#include <stdexcept>

#include "vorn/escape.h"

namespace vorn {
namespace {

constexpr char foldUpper(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

constexpr bool sameIgnoringCase(char a, char b) {
    return a == b || lower(a) == lower(b);
}

constexpr bool isPrintableAscii(char c) {
    return c >= ' ' && c <= '~';
}

}  // namespace

std::string lower(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), [](char c) { return lower(c); });
    return result;
}

std::string upper(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), foldUpper);
    return result;
}

bool equalsIgnoreCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), sameIgnoringCase);
}

bool startsWithIgnoreCase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() && equalsIgnoreCase(text.substr(0, prefix.size()), prefix);
}

bool StringCaseLessThan::operator()(std::string_view a, std::string_view b) const {
    const std::size_t common = std::min(a.size(), b.size());
    for (std::size_t i = 0; i < common; ++i) {
        if (a[i] == b[i]) continue;  // most are, even by their case
        const auto left = static_cast<unsigned char>(lower(a[i]));
        const auto right = static_cast<unsigned char>(lower(b[i]));
        if (left != right) return left < right;
    }
    return a.size() < b.size();
}

// FNV-1a of 64 bits, of the lower-case text.
std::size_t StringCaseHash::operator()(std::string_view text) const {
    std::uint64_t hash = 0xcbf29ce484222325;
    for (const char c : text) hash = (hash ^ static_cast<unsigned char>(lower(c))) * 0x100000001b3;
    return hash;
}

std::string itoa(long value, int base) {
    if (base < 2 || base > 36) throw std::invalid_argument("itoa: base " + std::to_string(base));
    char digits[std::numeric_limits<unsigned long>::digits + 1];
    const auto end = std::to_chars(digits, digits + sizeof digits, value, base).ptr;
    return std::string(digits, end);
}

bool stringInList(const std::vector<std::string>& list, std::string_view text, bool caseSensitive) {
    return std::any_of(list.begin(), list.end(), [&](const std::string& item) {
        return caseSensitive ? item == text : equalsIgnoreCase(item, text);
    });
}

bool isprintable(std::string_view value) {
    if (value.empty()) return true;
    const char first = value.front();
    if (first == ' ' || first == ':' || first == '<' || value.back() == ' ') return false;
    return std::all_of(value.begin(), value.end(), isPrintableAscii);
}

std::string printable(std::string_view value) {
    std::string result;
    result.reserve(value.size());
    for (const char c : value) {
        if (isPrintableAscii(c) && c != '\\')
            result += c;
        else
            result += EscapedByte(c, Digits::Lower);
    }
    return result;
}

}  // namespace vorn
