// SPDX-License-Identifier: Apache-2.0
// Whole numbers in texts from outside.
#pragma once

#include <charconv>
#include <concepts>
#include <optional>
#include <string_view>

namespace vorn {

// The number that is all of the text, in the given base; nothing for text that is none,
// has anything before or behind it (blanks and a "+" included), or does not fit.
template <std::integral Number>
std::optional<Number> parseNumber(std::string_view text, int base = 10) {
    Number number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

}  // namespace vorn
