// SPDX-License-Identifier: Apache-2.0
// Filters from text.
#include <stdexcept>

#include "bench/load/messages.h"

namespace load {

namespace {

enum FilterTag : std::uint8_t {
    kAnd = 0xa0,
    kOr = 0xa1,
    kNot = 0xa2,
    kEquality = 0xa3,
    kGreaterOrEqual = 0xa5,
    kLessOrEqual = 0xa6,
    kPresent = 0x87,
};

class FilterParser {
  public:
    explicit FilterParser(std::string_view text) : m_text(text) {}

    std::string whole() {
        std::string encoded = filter();
        if (!m_text.empty()) fail();
        return encoded;
    }

  private:
    [[noreturn]] static void fail() { throw std::invalid_argument("not a filter that can be sent"); }

    void expect(char wanted) {
        if (!m_text.starts_with(wanted)) fail();
        m_text.remove_prefix(1);
    }

    std::string filter() {
        expect('(');
        std::string encoded;
        switch (m_text.empty() ? '\0' : m_text[0]) {
            case '&':
                encoded = list(kAnd);
                break;
            case '|':
                encoded = list(kOr);
                break;
            case '!':
                encoded = list(kNot);
                break;
            default:
                encoded = assertion();
        }
        expect(')');
        return encoded;
    }

    std::string list(std::uint8_t tag) {
        m_text.remove_prefix(1);
        std::string elements;
        while (m_text.starts_with('(')) elements += filter();
        return element(tag, elements);
    }

    std::string assertion() {
        const std::size_t end = m_text.find_first_of("()");
        if (end == std::string_view::npos) fail();
        const std::string_view text = m_text.substr(0, end);
        m_text.remove_prefix(end);
        const std::size_t equals = text.find('=');
        if (equals == 0 || equals == std::string_view::npos) fail();
        return comparison(text.substr(0, equals), text.substr(equals + 1));
    }

    static std::string comparison(std::string_view name, std::string_view value) {
        std::uint8_t tag = kEquality;
        if (name.back() == '>') tag = kGreaterOrEqual;
        if (name.back() == '<') tag = kLessOrEqual;
        if (tag != kEquality) name.remove_suffix(1);
        if (name.empty()) fail();
        if (tag == kEquality && value == "*") return element(kPresent, name);
        return element(tag, element(kOctetString, name) + element(kOctetString, unescaped(value)));
    }

    static std::string unescaped(std::string_view value) {
        std::string bytes;
        for (std::size_t i = 0; i < value.size(); ++i) {
            if (value[i] == '*') fail();  // a substrings filter
            if (value[i] != '\\') {
                bytes += value[i];
                continue;
            }
            if (value.size() - i < 3) fail();
            bytes += static_cast<char>(digit(value[i + 1]) << 4 | digit(value[i + 2]));
            i += 2;
        }
        return bytes;
    }

    static int digit(char c) {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        fail();
    }

    std::string_view m_text;
};

}  // namespace

std::string encodeFilter(std::string_view text) {
    return FilterParser(text).whole();
}

}  // namespace load
