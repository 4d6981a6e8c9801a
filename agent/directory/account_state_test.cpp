// SPDX-License-Identifier: Apache-2.0
#include "agent/directory/account_state.h"

#include <gtest/gtest.h>

namespace vexagent {
namespace {

TEST(AccountState, IsOneDecimalNumberOrNone) {
    const std::pair<std::vector<std::string_view>, std::optional<std::int64_t>> cases[] = {
        {{}, 0},
        {{"512"}, 512},
        {{"0514"}, 514},
        {{"-2"}, -2},
        {{"9223372036854775807"}, 9223372036854775807},
        {{"4294967810"}, 4294967810},
        {{""}, std::nullopt},
        {{"0x202"}, std::nullopt},
        {{"514 "}, std::nullopt},
        {{" 514"}, std::nullopt},
        {{"+514"}, std::nullopt},
        {{"514\n"}, std::nullopt},
        {{std::string_view("514\0", 4)}, std::nullopt},
        {{"9223372036854775808"}, std::nullopt},
        {{"18446744073709551616514"}, std::nullopt},
        {{"5e2"}, std::nullopt},
        {{"512", "514"}, std::nullopt},
    };
    for (const auto& [values, expected] : cases)
        EXPECT_EQ(stateNumber(values), expected) << (values.empty() ? "none" : values.front());
}

TEST(AccountState, TheFlagOfADisabledAccount) {
    EXPECT_TRUE(isDisabled(514));
    EXPECT_TRUE(isDisabled(4294967810));
    EXPECT_TRUE(isDisabled(-2));
    EXPECT_FALSE(isDisabled(512));
    EXPECT_FALSE(isDisabled(0));
}

TEST(AccountState, AnAccountExpiresAtItsTime) {
    // 1,700,000,000 in units of 100 ns since 1601
    const std::int64_t expires = 133'444'736'000'000'000;
    EXPECT_FALSE(hasExpired(expires, 1'699'999'999));
    EXPECT_TRUE(hasExpired(expires, 1'700'000'000));
    EXPECT_FALSE(hasExpired(0, 1'700'000'000));
    EXPECT_FALSE(hasExpired(9223372036854775807, 1'700'000'000));
    EXPECT_TRUE(hasExpired(1, 1'700'000'000));
}

}  // namespace
}  // namespace vexagent
