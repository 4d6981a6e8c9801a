// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/ranges.h"

#include <gtest/gtest.h>

namespace vexagent {
namespace {

TEST(Range, TellsWhetherMoreFollows) {
    const struct {
        const char* text;
        bool isRange;
        const char* name;
        std::size_t next;
    } cases[] = {
        {"member;range=0-1499", true, "member", 1500},
        {"member;Range=1500-*", true, "member", 0},
        {"memberOf;range=0-0", true, "memberOf", 1},
        {"member", false, "", 0},
        {"member;binary", false, "", 0},
        {"member;range=0", false, "", 0},
        {"member;range=0-x", false, "", 0},
        {"member;range=0-99999999999999999999", false, "", 0},
    };
    for (const auto& [text, isRange, name, next] : cases) {
        const auto ranged = parseRange(text);
        ASSERT_EQ(ranged.has_value(), isRange) << text;
        if (!isRange) continue;
        EXPECT_EQ(ranged->name, name) << text;
        EXPECT_EQ(ranged->next, next) << text;
    }
}

TEST(Range, AnEndBeyondAnyAttributesValuesIsNone) {
    const auto last = parseRange("member;range=0-5000000");
    ASSERT_TRUE(last);
    EXPECT_EQ(last->next, 5'000'001u);
    EXPECT_FALSE(parseRange("member;range=0-5000001"));
}

TEST(Range, TheNameKeepsItsCaseAndItsOptions) {
    const auto ranged = parseRange("memberOf;binary;RANGE=0-9");
    ASSERT_TRUE(ranged);
    EXPECT_EQ(ranged->name, "memberOf;binary");
}

TEST(Range, OneAttributeInPartsIsEnough) {
    EXPECT_FALSE(hasRanges({"CN=g", {}}));
    EXPECT_FALSE(hasRanges({"CN=g", {{"member", {"a"}}, {"range", {"b"}}}}));
    EXPECT_TRUE(hasRanges({"CN=g", {{"cn", {"g"}}, {"member;Range=0-1", {"a"}}}}));
}

}  // namespace
}  // namespace vexagent
