// SPDX-License-Identifier: Apache-2.0
#include "agent/directory/identifiers.h"

#include <gtest/gtest.h>

#include <limits>

namespace vexagent {
namespace {

TEST(Guid, FirstThreeFieldsAreStoredLittleEndian) {
    const std::string stored("\x04\x03\x02\x01\x06\x05\x08\x07\x09\x0a\x0b\x0c\x0d\x0e\x0f\x10", 16);
    EXPECT_EQ(guidText(stored), "01020304-0506-0708-090a-0b0c0d0e0f10");
    EXPECT_EQ(guidBytes("01020304-0506-0708-090a-0b0c0d0e0f10"), stored);
    EXPECT_EQ(guidBytes("{01020304-0506-0708-090A-0B0C0D0E0F10}"), stored);
}

TEST(Guid, AnythingElseIsNone) {
    for (const char* text :
         {"", "01020304", "01020304-0506-0708-090a-0b0c0d0e0f1", "01020304-0506-0708-090a-0b0c0d0e0f1g",
          "01020304x0506-0708-090a-0b0c0d0e0f10", "{01020304-0506-0708-090a-0b0c0d0e0f10",
          "(01020304-0506-0708-090a-0b0c0d0e0f10)", "{01020304-0506-0708-090a-0b0c0d0e0f10)",
          "(01020304-0506-0708-090a-0b0c0d0e0f10}"})
        EXPECT_EQ(guidBytes(text), std::nullopt) << text;
    EXPECT_EQ(guidText(""), "");
    EXPECT_EQ(guidText(std::string(15, 'x')), "");
}

TEST(Guid, FromANameIsTheSameEveryTimeAndAVersion5Uuid) {
    const std::string text = guidText(guidFromName("CN=ANN,DC=EXAMPLE,DC=COM"));
    EXPECT_EQ(text, guidText(guidFromName("CN=ANN,DC=EXAMPLE,DC=COM")));
    EXPECT_NE(text, guidText(guidFromName("CN=BEN,DC=EXAMPLE,DC=COM")));
    EXPECT_EQ(text[14], '5');
}

TEST(Sid, TextAndBytes) {
    const std::string text = "S-1-5-21-3623811015-3361044348-30300820-1013";
    const auto bytes = sidBytes(text);
    ASSERT_TRUE(bytes);
    EXPECT_EQ(bytes->size(), 28u);
    EXPECT_EQ(bytes->substr(0, 8), std::string("\x01\x05\0\0\0\0\0\x05", 8));
    EXPECT_EQ(sidText(*bytes), text);
    EXPECT_EQ(sidRid(*bytes), 1013u);
    EXPECT_EQ(sidText(sidWithRid(*bytes, 513)), "S-1-5-21-3623811015-3361044348-30300820-513");
    EXPECT_EQ(sidText(*sidBytes("s-1-5-32-544")), "S-1-5-32-544");
}

TEST(Sid, HasOneToFifteenSubAuthorities) {
    for (const char* text :
         {"S-1-1-0", "S-1-5-1-2-3-4-5-6-7-8-9-10-11-12-13-14-15", "S-1-281474976710655-4294967295"}) {
        const auto bytes = sidBytes(text);
        ASSERT_TRUE(bytes) << text;
        EXPECT_EQ(sidText(*bytes), text);
    }
    EXPECT_EQ(sidText(std::string("\x01\x00\0\0\0\0\0\x05", 8)), "");
    EXPECT_EQ(sidText(std::string("\x02\x01\0\0\0\0\0\x05\x20\0\0\0", 12)), "");
    EXPECT_EQ(sidText("\x01\x10" + std::string(6 + 16 * 4, '\0')), "");
}

TEST(Sid, AnythingElseIsNone) {
    for (const char* text :
         {"", "S", "S-", "X-1-5-21-1", "S-1", "S-1-5", "S-2-5-21", "S-1-5-", "S-1-5-x", "S-1-5-4294967296",
          "S-1-5-21-", "S-1-5--1", "S-1-281474976710656-1", "S-1-5-1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16"})
        EXPECT_EQ(sidBytes(text), std::nullopt) << text;
    EXPECT_EQ(sidText("short"), "");
    EXPECT_EQ(sidRid(std::string("\x01\x02\0\0\0\0\0\x05\x20\0\0\0", 12)),
              std::nullopt);  // promises one more
    EXPECT_EQ(sidWithRid("x", 1), "");
}

}  // namespace
}  // namespace vexagent
