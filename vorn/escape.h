// SPDX-License-Identifier: Apache-2.0
// Bytes that cannot stand for themselves, written in hexadecimal digits.
//
// Which bytes those are depends on where the text goes: a filter (here), a DN
// (vorn::DN::escapeValue), a line of the log (vorn/log_text.h), an error's text
// (vorn::printable). How one is written is the same everywhere.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vorn {

enum class Digits { Upper, Lower };

// A backslash and the byte's two hexadecimal digits; convertible to text while it lives.
class EscapedByte {
  public:
    explicit constexpr EscapedByte(char c, Digits digits = Digits::Upper) {
        const char* const all = digits == Digits::Upper ? "0123456789ABCDEF" : "0123456789abcdef";
        const auto byte = static_cast<unsigned char>(c);
        m_text[1] = all[byte >> 4];
        m_text[2] = all[byte & 15];
    }
    constexpr operator std::string_view() const { return {m_text, sizeof m_text}; }

  private:
    char m_text[3] = {'\\'};
};

// What a hexadecimal digit of either case counts; -1 for another character.
int hexDigit(char c);

// Whether some byte of the value has to be escaped in a filter: backslash, parentheses and
// asterisk (RFC 4515), control bytes, and all that is not ASCII.
bool needsFilterEscape(std::string_view value);

// The value as it stands in a filter.
void appendFilterValue(std::string* out, std::string_view value);

// The value that stands in a filter so; nothing where a backslash has no two digits behind
// it.
std::optional<std::string> unescapeFilterValue(std::string_view text);

}  // namespace vorn
