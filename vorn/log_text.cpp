// SPDX-License-Identifier: Apache-2.0
#include "vorn/log_text.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vorn/escape.h"
#include "vorn/utf8.h"

namespace vorn {
namespace {

// Whether a character stands in a line as it is. Those of two and three bytes that do
// not are C1's control characters, and the separators of lines and of paragraphs.
bool isPlain(std::string_view character) {
    const auto first = static_cast<unsigned char>(character[0]);
    if (character.size() == 1) return first >= 0x20 && first != 0x7F;
    if (character.size() == 2) return first != 0xC2 || static_cast<unsigned char>(character[1]) >= 0xA0;
    return character != "\xE2\x80\xA8" && character != "\xE2\x80\xA9";
}

bool isPlainByte(char c) {
    return c >= 0x20 && c != 0x7F;
}

std::size_t left(const BoundedLine& line) {
    return line.left();
}
std::size_t left(const std::string&) {
    return std::string::npos / 2;
}

template <typename Line>
void appendBytes(Line& line, std::string_view bytes) {
    for (const char c : bytes) line.append(std::string_view(EscapedByte(c)));
}

template <typename Line>
void appendEscaped(Line& line, std::string_view text, LineEnds ends) {
    while (!text.empty() && left(line) > 0) {
        const auto plain =
            static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), isPlainByte) - text.begin());
        line.append(text.substr(0, plain));
        text.remove_prefix(plain);
        if (text.empty()) return;
        const std::size_t length = utf8Length(text);
        const std::string_view character = text.substr(0, std::max<std::size_t>(length, 1));
        const bool keeps = ends == LineEnds::Kept && character == "\n";
        if (keeps || (length > 0 && isPlain(character)))
            line.append(character);
        else
            appendBytes(line, character);
        text.remove_prefix(character.size());
    }
}

// One conversion of a format, such as "%-5.2lu", with what stands for its asterisks.
struct Conversion {
    std::string format;
    std::string length;
    int precision = -1;
    char kind = 0;
};

// Goes through a format and takes the arguments one by one.
template <typename Line>
class Formatting {
  public:
    Formatting(Line& line, const char* format, std::va_list arguments) : m_line(line), m_next(format) {
        va_copy(m_arguments, arguments);
    }
    ~Formatting() { va_end(m_arguments); }
    Formatting(const Formatting&) = delete;
    Formatting& operator=(const Formatting&) = delete;

    void run() {
        while (*m_next != '\0' && left(m_line) > 0) {
            const std::size_t plain = std::strcspn(m_next, "%");
            m_line.append(std::string_view(m_next, plain));
            m_next += plain;
            if (*m_next == '%') convert();
        }
    }

  private:
    void convert() {
        Conversion conversion;
        readConversion(conversion);
        switch (conversion.kind) {
            case '%':
                m_line.append(std::string_view("%"));
                return;
            case 's':
                return appendText(conversion);
            case 'c':
                return appendCharacter();
            case 'p':
                return append(conversion, va_arg(m_arguments, void*));
            default:
                return appendNumber(conversion);
        }
    }

    void readConversion(Conversion& conversion) {
        conversion.format = *m_next++;
        takeAll(conversion.format, "-+ #0");
        readSize(conversion.format);
        if (*m_next == '.') {
            conversion.format += *m_next++;
            const std::size_t begin = conversion.format.size();
            readSize(conversion.format);
            conversion.precision = std::atoi(conversion.format.c_str() + begin);
        }
        takeAll(conversion.length, "hlLzjt");
        conversion.kind = *m_next;
        if (*m_next != '\0') ++m_next;
        conversion.format += conversion.length + conversion.kind;
    }

    void takeAll(std::string& taken, const char* of) {
        const std::size_t count = std::strspn(m_next, of);
        taken.append(m_next, count);
        m_next += count;
    }

    void readSize(std::string& format) {
        if (*m_next != '*') return takeAll(format, "0123456789");
        ++m_next;
        format += std::to_string(va_arg(m_arguments, int));
    }

    // Some bytes more than there is room for, so that no character is cut before its time.
    void appendText(const Conversion& conversion) {
        const char* text = va_arg(m_arguments, const char*);
        if (text == nullptr) text = "(null)";
        const std::size_t most =
            conversion.precision < 0 ? left(m_line) + 4 : static_cast<std::size_t>(conversion.precision);
        appendEscaped(m_line, {text, ::strnlen(text, most)}, LineEnds::Escaped);
    }

    void appendCharacter() {
        const char c = static_cast<char>(va_arg(m_arguments, int));
        appendEscaped(m_line, {&c, 1}, LineEnds::Escaped);
    }

    void appendNumber(const Conversion& conversion) {
        if (std::strchr("aAeEfFgG", conversion.kind) != nullptr) {
            if (conversion.length == "L") return append(conversion, va_arg(m_arguments, long double));
            return append(conversion, va_arg(m_arguments, double));
        }
        if (conversion.length == "ll") return append(conversion, va_arg(m_arguments, long long));
        if (conversion.length.empty() || conversion.length[0] == 'h')
            return append(conversion, va_arg(m_arguments, int));
        // l, z, j and t are of one size here.
        static_assert(sizeof(long) == sizeof(std::size_t) && sizeof(long) == sizeof(std::intmax_t) &&
                      sizeof(long) == sizeof(std::ptrdiff_t));
        append(conversion, va_arg(m_arguments, long));
    }

    template <typename Value>
    void append(const Conversion& conversion, Value value) {
        // The compiler has checked it, as a part of the whole format.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        char text[512];
        const int length = std::snprintf(text, sizeof text, conversion.format.c_str(), value);
#pragma GCC diagnostic pop
        if (length > 0)
            m_line.append(
                std::string_view(text, std::min(static_cast<std::size_t>(length), sizeof text - 1)));
    }

    Line& m_line;
    const char* m_next;
    std::va_list m_arguments;
};

}  // namespace

void appendForLog(BoundedLine& line, std::string_view text, LineEnds ends) {
    appendEscaped(line, text, ends);
}

void formatForLog(std::string& line, const char* format, std::va_list arguments) {
    Formatting(line, format, arguments).run();
}

void formatForLog(BoundedLine& line, const char* format, std::va_list arguments) {
    Formatting(line, format, arguments).run();
}

}  // namespace vorn
