// SPDX-License-Identifier: Apache-2.0
// The text of log lines.
//
// A line tells of one event. What is put into it, such as a name that a client sent,
// must neither end it nor look like another one: its control characters, Unicode's
// line ends and bytes that are not UTF-8 are written as a backslash and two
// upper-case hexadecimal digits for each byte. The text around it stands as it is.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>
#include <string_view>

namespace vorn {

// A line that takes so many bytes and no more, without a mark; makes nothing on the heap.
class BoundedLine {
  public:
    static constexpr std::size_t kMost = 1021;

    void append(std::string_view text) {
        m_size += text.copy(m_text + m_size, kMost - m_size);
        m_text[m_size] = '\0';
    }
    std::size_t left() const { return kMost - m_size; }
    std::string_view text() const { return {m_text, m_size}; }
    const char* c_str() const { return m_text; }

  private:
    std::size_t m_size = 0;
    char m_text[kMost + 1] = "";
};

// Which line ends of a text stay.
enum class LineEnds { Escaped, Kept };

// Appends what the printf format gives, each text (%s) and character (%c) put in
// escaped. Widths of texts do not count.
void formatForLog(std::string& line, const char* format, std::va_list arguments)
    __attribute__((format(printf, 2, 0)));
void formatForLog(BoundedLine& line, const char* format, std::va_list arguments)
    __attribute__((format(printf, 2, 0)));

// Appends the text, escaped.
void appendForLog(BoundedLine& line, std::string_view text, LineEnds ends);

}  // namespace vorn
