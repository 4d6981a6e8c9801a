// SPDX-License-Identifier: Apache-2.0
#include "vorn/utf8.h"

#include <cstdint>
#include <cstring>

namespace vorn {
namespace {

constexpr char32_t kFirstSurrogate = 0xD800;
constexpr char32_t kLastSurrogate = 0xDFFF;
constexpr char32_t kLastCodePoint = 0x10FFFF;

// How many bytes follow the first one; -1 for a byte that cannot begin a character.
int followers(unsigned char first) {
    if (first < 0x80) return 0;
    if (first >= 0xC2 && first <= 0xDF) return 1;
    if (first >= 0xE0 && first <= 0xEF) return 2;
    if (first >= 0xF0 && first <= 0xF4) return 3;
    return -1;
}

bool isScalar(char32_t code) {
    return code <= kLastCodePoint && (code < kFirstSurrogate || code > kLastSurrogate);
}

// How many bytes of ASCII the text begins with, counted in whole words: most texts are of
// nothing else.
std::size_t wordsOfAscii(std::string_view text) {
    std::size_t length = 0;
    for (std::uint64_t word; length + sizeof word <= text.size(); length += sizeof word) {
        std::memcpy(&word, text.data() + length, sizeof word);
        if ((word & 0x8080808080808080U) != 0) break;
    }
    return length;
}

}  // namespace

std::size_t utf8Length(std::string_view text) {
    static constexpr char32_t kLeast[] = {0, 0x80, 0x800, 0x10000};
    if (text.empty()) return 0;
    const auto first = static_cast<unsigned char>(text[0]);
    const int count = followers(first);
    if (count == 0) return 1;
    if (count < 0 || text.size() <= static_cast<std::size_t>(count)) return 0;
    char32_t code = first & (0x3Fu >> count);
    for (int i = 1; i <= count; ++i) {
        const auto next = static_cast<unsigned char>(text[static_cast<std::size_t>(i)]);
        if ((next & 0xC0) != 0x80) return 0;
        code = code << 6 | (next & 0x3Fu);
    }
    return code >= kLeast[count] && isScalar(code) ? static_cast<std::size_t>(count) + 1 : 0;
}

bool isUtf8(std::string_view text) {
    text.remove_prefix(wordsOfAscii(text));
    while (!text.empty()) {
        const std::size_t length = utf8Length(text);
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

}  // namespace vorn
