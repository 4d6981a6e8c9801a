// SPDX-License-Identifier: Apache-2.0
#include "vorn/escape.h"

#include <algorithm>

namespace vorn {
namespace {

// The byte as a signed char: what is not ASCII is below zero.
constexpr auto needsEscape = [](char c) {
    return c == '\\' || c == '(' || c == ')' || c == '*' || c == 0x7F || static_cast<signed char>(c) <= 0x1F;
};

}  // namespace

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool needsFilterEscape(std::string_view value) {
    return std::any_of(value.begin(), value.end(), needsEscape);
}

void appendFilterValue(std::string* out, std::string_view value) {
    for (const char c : value) {
        if (needsEscape(c))
            out->append(EscapedByte(c));
        else
            out->push_back(c);
    }
}

std::optional<std::string> unescapeFilterValue(std::string_view text) {
    std::string value;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            value += text[i];
            continue;
        }
        if (text.size() - i < 3) return std::nullopt;
        const int high = hexDigit(text[++i]);
        const int low = hexDigit(text[++i]);
        if (high < 0 || low < 0) return std::nullopt;
        value += static_cast<char>(high << 4 | low);
    }
    return value;
}

}  // namespace vorn
