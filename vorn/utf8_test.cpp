// SPDX-License-Identifier: Apache-2.0
#include "vorn/utf8.h"

#include <gtest/gtest.h>

#include <string>

namespace vorn {
namespace {

TEST(Utf8, LengthOfTheFirstCharacter) {
    const std::pair<std::string, std::size_t> cases[] = {
        {"", 0},
        {"ab", 1},
        {std::string(1, '\0'), 1},
        {"\x7f", 1},
        {"\xc3\xbcx", 2},
        {"\xe2\x82\xac", 3},
        {"\xed\x9f\xbf", 3},
        {"\xee\x80\x80", 3},
        {"\xf0\x9f\x98\x80", 4},
        {"\xf4\x8f\xbf\xbf", 4},
        {"\xfcrgen", 0},      // Latin-1
        {"\x80", 0},          // a follower alone
        {"\xc3", 0},          // cut
        {"\xc3z", 0},         // no follower
        {"\xc0\xaf", 0},      // overlong
        {"\xe0\x9f\xbf", 0},  // overlong
        {"\xf0\x8f\xbf\xbf", 0},
        {"\xed\xa0\x80", 0},  // a surrogate
        {"\xed\xbf\xbf", 0},
        {"\xf4\x90\x80\x80", 0},  // beyond Unicode
        {"\xf5\x80\x80\x80", 0},
    };
    for (const auto& [text, length] : cases) EXPECT_EQ(utf8Length(text), length) << text;
}

TEST(Utf8, TheWholeTextCounts) {
    EXPECT_TRUE(isUtf8(""));
    EXPECT_TRUE(isUtf8("J\xc3\xbcrgen"));
    EXPECT_FALSE(isUtf8("J\xfcrgen"));
    EXPECT_FALSE(isUtf8("J\xc3\xbcrgen\xc3"));
}

// Whatever the length and the place: ASCII is passed over in words.
TEST(Utf8, AByteThatIsNoneIsSeenAnywhere) {
    for (std::size_t length = 1; length < 40; ++length) {
        const std::string ascii(length, '\x7f');
        EXPECT_TRUE(isUtf8(ascii)) << length;
        for (std::size_t at = 0; at < length; ++at) {
            for (const char odd : {'\x80', '\xfc', '\xff'}) {
                std::string text = ascii;
                text[at] = odd;
                EXPECT_FALSE(isUtf8(text)) << at << " of " << length;
            }
            EXPECT_TRUE(isUtf8(std::string(ascii).insert(at, "\xf0\x9f\x98\x80"))) << at << " of " << length;
        }
    }
}

}  // namespace
}  // namespace vorn
