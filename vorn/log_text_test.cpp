// SPDX-License-Identifier: Apache-2.0
#include "vorn/log_text.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace vorn {
namespace {

__attribute__((format(printf, 1, 2))) std::string formatted(const char* format, ...) {
    std::string line;
    std::va_list arguments;
    va_start(arguments, format);
    formatForLog(line, format, arguments);
    va_end(arguments);
    return line;
}

__attribute__((format(printf, 1, 2))) std::string bounded(const char* format, ...) {
    BoundedLine line;
    std::va_list arguments;
    va_start(arguments, format);
    formatForLog(line, format, arguments);
    va_end(arguments);
    return line.c_str();
}

TEST(LogText, WhatIsPutInCannotEndTheLine) {
    const std::pair<const char*, const char*> cases[] = {
        {"", ""},
        {"cn=ann,dc=example", "cn=ann,dc=example"},
        {"a\nb\r\tc", "a\\0Ab\\0D\\09c"},
        {"\x1b[2J\x7f", "\\1B[2J\\7F"},
        {"J\xc3\xbcrgen \xe2\x82\xac \xf0\x9f\x98\x80", "J\xc3\xbcrgen \xe2\x82\xac \xf0\x9f\x98\x80"},
        {"J\xfcrgen", "J\\FCrgen"},
        {"\xc3", "\\C3"},
        {"\xed\xa0\x80", "\\ED\\A0\\80"},
        {"a\xc2\x85z\xc2\xa0", "a\\C2\\85z\xc2\xa0"},                  // NEL; a blank that does not break
        {"a\xe2\x80\xa8z\xe2\x80\xa9", "a\\E2\\80\\A8z\\E2\\80\\A9"},  // Unicode's line and paragraph ends
        {"(cn=\\2a)", "(cn=\\2a)"},
    };
    for (const auto& [text, shown] : cases) {
        EXPECT_EQ(formatted("%s", text), shown);
        EXPECT_EQ(bounded("%s", text), shown);
    }
    EXPECT_EQ(formatted("<%c%c>", 'x', '\n'), "<x\\0A>");
}

TEST(LogText, LineEndsOfTheTextItselfStay) {
    EXPECT_EQ(formatted("a = %s,\nb = %s", "1\n2", "3"), "a = 1\\0A2,\nb = 3");
    BoundedLine line;
    line.append("ldif = \n");
    appendForLog(line, "dn: a\ncn: b\r\xff\n", LineEnds::Kept);
    EXPECT_EQ(line.text(), "ldif = \ndn: a\ncn: b\\0D\\FF\n");
}

TEST(LogText, FormatsAsPrintfDoes) {
    EXPECT_EQ(formatted("%d %i %u %x %X %o", -1, 2, 3U, 255U, 255U, 8U), "-1 2 3 ff FF 10");
    EXPECT_EQ(formatted("%ld %lu %lld %llu", -1L, ~0UL, -2LL, ~0ULL),
              "-1 18446744073709551615 -2 18446744073709551615");
    EXPECT_EQ(
        formatted("%zu %zd %jd %td", sizeof(int), std::ptrdiff_t{-4}, std::intmax_t{-5}, std::ptrdiff_t{6}),
        "4 -4 -5 6");
    EXPECT_EQ(formatted("%hd %hhd", short{-3}, static_cast<signed char>(-4)), "-3 -4");
    EXPECT_EQ(formatted("%5d|%-5d|%05d|%+d|%.3d|%*d|%.*f", 42, 42, 42, 42, 7, 4, 9, 1, 2.55),
              "   42|42   |00042|+42|007|   9|2.5");
    EXPECT_EQ(formatted("%f %.2e %g %Lf", 1.5, 1234.5, 0.1, 2.5L), "1.500000 1.23e+03 0.1 2.500000");
    EXPECT_EQ(formatted("0x%08x 100%% %p", 0xbeefU, static_cast<void*>(nullptr)), "0x0000beef 100% (nil)");
    EXPECT_EQ(formatted("%.3s|%.*s", "abcdef", 2, "xyz"), "abc|xy");
    const char* volatile none = nullptr;
    EXPECT_EQ(formatted("%s", none), "(null)");
}

TEST(LogText, ALineIsCutAfterEscaping) {
    const std::string text(BoundedLine::kMost, '\n');
    const std::string cut = bounded("x%s", text.c_str());
    EXPECT_EQ(cut.size(), BoundedLine::kMost);
    EXPECT_EQ(cut.substr(0, 7), "x\\0A\\0A");
    EXPECT_EQ(bounded("%s", std::string(5000, 'y').c_str()), std::string(BoundedLine::kMost, 'y'));
    EXPECT_EQ(bounded("%s%d", std::string(BoundedLine::kMost - 1, 'y').c_str(), 123),
              std::string(BoundedLine::kMost - 1, 'y').append("1"));
}

}  // namespace
}  // namespace vorn
