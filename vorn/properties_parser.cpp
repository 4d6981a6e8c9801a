// SPDX-License-Identifier: Apache-2.0
#include "vorn/properties_parser.h"

#include <algorithm>
#include <cstdint>

#include "vorn/escape.h"
#include "vorn/properties.h"
#include "vorn/utf8.h"

namespace vorn {
namespace {

constexpr char32_t kFirstHighSurrogate = 0xD800;
constexpr char32_t kFirstLowSurrogate = 0xDC00;
constexpr char32_t kAfterSurrogates = 0xE000;

constexpr bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\f';
}
constexpr bool isLineEnd(char c) {
    return c == '\n' || c == '\r';
}
constexpr bool isSeparator(char c) {
    return c == '=' || c == ':';
}
constexpr bool isSurrogate(char32_t c) {
    return c >= kFirstHighSurrogate && c < kAfterSurrogates;
}

void appendUtf8(std::string& out, char32_t code) {
    const auto tail = [&](int shift) { return static_cast<char>(0x80 | (code >> shift & 0x3F)); };
    if (code < 0x80) {
        out += static_cast<char>(code);
    } else if (code < 0x800) {
        out += {static_cast<char>(0xC0 | code >> 6), tail(0)};
    } else if (code < 0x10000) {
        out += {static_cast<char>(0xE0 | code >> 12), tail(6), tail(0)};
    } else {
        out += {static_cast<char>(0xF0 | code >> 18), tail(12), tail(6), tail(0)};
    }
}

// Reads a text from front to back. m_line is always the line that m_next is on.
class Parser {
  public:
    Parser(std::string_view text, const std::string& origin) : m_text(text), m_origin(origin) {}

    std::vector<PropertiesEntry> parse() {
        skipByteOrderMark();
        while (skipToEntry()) readEntry();
        return std::move(m_entries);
    }

  private:
    [[noreturn]] void fail(const char* reason) const {
        throw PropertiesException(m_origin + ":" + std::to_string(m_line) + ": " + reason, 0);
    }

    bool atTextEnd() const { return m_next == m_text.size(); }
    bool atLineEnd() const { return atTextEnd() || isLineEnd(m_text[m_next]); }

    void skipByteOrderMark() {
        if (m_text.substr(0, 3) == "\xEF\xBB\xBF") m_next = 3;
    }

    void skipLineEnd() {
        const bool two = m_text.substr(m_next, 2) == "\r\n";
        m_next += two ? 2 : 1;
        ++m_line;
    }

    void skipNaturalBlanks() {
        while (!atTextEnd() && isBlank(m_text[m_next])) ++m_next;
    }

    void skipComment() {
        std::string ignored;
        while (!atLineEnd()) copyCharacter(ignored);
    }

    bool skipToEntry() {
        while (true) {
            skipNaturalBlanks();
            if (atTextEnd()) return false;
            if (isLineEnd(m_text[m_next])) {
                skipLineEnd();
            } else if (m_text[m_next] == '#' || m_text[m_next] == '!') {
                skipComment();
            } else {
                return true;
            }
        }
    }

    // Steps over backslashes that join this line with the next.
    void joinLines() {
        while (!atTextEnd() && m_text[m_next] == '\\') {
            if (m_next + 1 == m_text.size()) {
                ++m_next;
            } else if (isLineEnd(m_text[m_next + 1])) {
                ++m_next;
                skipLineEnd();
                skipNaturalBlanks();
            } else {
                return;
            }
        }
    }

    void skipBlanks() {
        joinLines();
        while (!atTextEnd() && isBlank(m_text[m_next])) {
            ++m_next;
            joinLines();
        }
    }

    void readEntry() {
        skipBlanks();
        if (atLineEnd()) return;
        PropertiesEntry entry{{}, {}, m_line};
        entry.key = readText([](char c) { return isBlank(c) || isSeparator(c); });
        if (entry.key.empty()) fail("a line without a key");
        skipBlanks();
        if (!atLineEnd() && isSeparator(m_text[m_next])) ++m_next;
        skipBlanks();
        entry.value = readText([](char) { return false; });
        m_entries.push_back(std::move(entry));
    }

    template <typename Ends>
    std::string readText(Ends ends) {
        std::string out;
        for (joinLines(); !atLineEnd() && !ends(m_text[m_next]); joinLines()) {
            m_text[m_next] == '\\' ? readEscape(out) : copyCharacter(out);
        }
        return out;
    }

    void copyCharacter(std::string& out) {
        if (m_text[m_next] == '\0') fail("a NUL byte");
        const std::size_t length = utf8Length(m_text.substr(m_next));
        if (length == 0) fail("text that is not UTF-8");
        out += m_text.substr(m_next, length);
        m_next += length;
    }

    // joinLines has seen to it that something stands behind the backslash.
    void readEscape(std::string& out) {
        switch (m_text[m_next + 1]) {
            case 'u':
                return appendUtf8(out, readUnicodeEscape());
            case 't':
                out += '\t';
                break;
            case 'n':
                out += '\n';
                break;
            case 'r':
                out += '\r';
                break;
            case 'f':
                out += '\f';
                break;
            default:
                ++m_next;
                return copyCharacter(out);
        }
        m_next += 2;
    }

    char32_t readUnicodeEscape() {
        const char32_t unit = readUnit();
        if (unit == 0) fail("\\u0000 stands for a NUL byte");
        if (!isSurrogate(unit)) return unit;
        if (unit >= kFirstLowSurrogate) fail("an unpaired surrogate");
        joinLines();
        if (m_text.substr(m_next, 2) != "\\u") fail("an unpaired surrogate");
        const char32_t low = readUnit();
        if (low < kFirstLowSurrogate || low >= kAfterSurrogates) fail("an unpaired surrogate");
        return 0x10000 + ((unit - kFirstHighSurrogate) << 10) + (low - kFirstLowSurrogate);
    }

    // One "\uXXXX".
    char32_t readUnit() {
        const std::string_view digits = m_text.substr(m_next + 2, 4);
        if (digits.size() < 4) fail("\\u without four hexadecimal digits");
        char32_t unit = 0;
        for (const char c : digits) unit = unit * 16 + digitValue(c);
        m_next += 6;
        return unit;
    }

    char32_t digitValue(char c) const {
        const int value = hexDigit(c);
        if (value < 0) fail("\\u without four hexadecimal digits");
        return static_cast<char32_t>(value);
    }

    const std::string_view m_text;
    const std::string& m_origin;
    std::size_t m_next = 0;
    std::size_t m_line = 1;
    std::vector<PropertiesEntry> m_entries;
};

}  // namespace

std::vector<PropertiesEntry> parseProperties(std::string_view text, const std::string& origin) {
    return Parser(text, origin).parse();
}

}  // namespace vorn
