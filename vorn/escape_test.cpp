// SPDX-License-Identifier: Apache-2.0
#include "vorn/escape.h"

#include <gtest/gtest.h>

namespace vorn {
namespace {

std::string inFilter(std::string_view value) {
    std::string text = "=";
    appendFilterValue(&text, value);
    return text;
}

TEST(EscapedByte, HasTwoDigitsOfTheCaseAskedFor) {
    EXPECT_EQ(std::string_view(EscapedByte('\0')), "\\00");
    EXPECT_EQ(std::string_view(EscapedByte('\xAB')), "\\AB");
    EXPECT_EQ(std::string_view(EscapedByte('\xAB', Digits::Lower)), "\\ab");
}

TEST(FilterValue, HasEveryByteEscapedThatAFilterWouldRead) {
    EXPECT_EQ(inFilter("plain text, #1=2"), "=plain text, #1=2");
    EXPECT_EQ(inFilter("a*(b)\\c"), "=a\\2A\\28b\\29\\5Cc");
    EXPECT_EQ(inFilter(std::string_view("\0\n\x1F\x7F", 4)), "=\\00\\0A\\1F\\7F");
    EXPECT_EQ(inFilter("M\xC3\xBCller"), "=M\\C3\\BCller");
    EXPECT_EQ(inFilter(""), "=");
}

TEST(FilterValue, TellsWhetherThereIsAnythingToEscape) {
    EXPECT_FALSE(needsFilterEscape("plain text, #1=2"));
    EXPECT_FALSE(needsFilterEscape(""));
    for (const char c : {'*', '(', ')', '\\', '\0', '\x1F', '\x7F', '\x80', '\xFF'})
        EXPECT_TRUE(needsFilterEscape(std::string("a") + c)) << std::string_view(EscapedByte(c));
}

TEST(FilterValue, IsReadBackAsItWas) {
    std::string every;
    for (int byte = 0; byte < 256; ++byte) every.push_back(static_cast<char>(byte));
    EXPECT_EQ(unescapeFilterValue(inFilter(every).substr(1)), every);
    EXPECT_EQ(unescapeFilterValue("\\2a\\2A"), "**");
    EXPECT_EQ(unescapeFilterValue(""), "");
}

TEST(FilterValue, IsNoneWhereABackslashHasNoTwoDigits) {
    for (const char* text : {"\\", "\\2", "a\\", "\\g0", "\\0g", "\\+1", "\\ 1"})
        EXPECT_EQ(unescapeFilterValue(text), std::nullopt) << text;
}

}  // namespace
}  // namespace vorn
