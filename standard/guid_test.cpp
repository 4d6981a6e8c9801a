// SPDX-License-Identifier: Apache-2.0
#include "standard/guid.h"

#include <gtest/gtest.h>

namespace standard {
namespace {

const std::string kUuid("\x00\x11\x22\x33\x44\x55\x66\x77\x88\x99\xAA\xBB\xCC\xDD\xEE\xFF", 16);
const std::string kGuid("\x33\x22\x11\x00\x55\x44\x77\x66\x88\x99\xAA\xBB\xCC\xDD\xEE\xFF", 16);

TEST(TheGuidOfAUuid, HasTheFirstThreeNumbersLowestByteFirst) {
    EXPECT_EQ(guidOfUuid(kUuid), kGuid);
}

TEST(TheGuidOfAUuid, IsThatOfItsText) {
    EXPECT_EQ(guidOfUuid("00112233-4455-6677-8899-aabbccddeeff"), kGuid);
    EXPECT_EQ(guidOfUuid("00112233-4455-6677-8899-AABBCCDDEEFF"), kGuid);
}

TEST(TheGuidOfAUuid, IsNoneOfOtherText) {
    for (const char* text :
         {"", "00112233", "00112233-4455-6677-8899-aabbccddeef", "00112233445566778899aabbccddeeff",
          "00112233-4455-6677-8899-aabbccddeefff", "00112233-4455-6677-8899-aabbccddeefg",
          "g0112233-4455-6677-8899-aabbccddeeff", "001122334455-6677-8899--aabbccddeeff"})
        EXPECT_EQ(guidOfUuid(text), std::nullopt) << text;
}

TEST(TheUuidOfAGuid, IsItsText) {
    EXPECT_EQ(uuidOfGuid(kGuid), "00112233-4455-6677-8899-aabbccddeeff");
    EXPECT_EQ(uuidOfGuid("short"), "");
}

}  // namespace
}  // namespace standard
