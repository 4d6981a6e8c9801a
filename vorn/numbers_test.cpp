// SPDX-License-Identifier: Apache-2.0
#include "vorn/numbers.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

namespace vorn {
namespace {

template <typename Number>
class NumbersTest : public testing::Test {};
using Types = testing::Types<std::uint8_t, std::uint16_t, int, std::uint32_t, std::int64_t, std::size_t>;
TYPED_TEST_SUITE(NumbersTest, Types);

TYPED_TEST(NumbersTest, TakesWhatFitsAndNothingElse) {
    using Limits = std::numeric_limits<TypeParam>;
    const std::string most = std::to_string(Limits::max());
    const std::string least = std::to_string(Limits::min());
    EXPECT_EQ(parseNumber<TypeParam>(most), Limits::max());
    EXPECT_EQ(parseNumber<TypeParam>(least), Limits::min());
    EXPECT_EQ(parseNumber<TypeParam>("0"), TypeParam{0});
    EXPECT_EQ(parseNumber<TypeParam>("007"), TypeParam{7});
    for (const std::string& text :
         {most + "0", "-" + most + "0", std::string("99999999999999999999999"), std::string(),
          std::string("-"), std::string("+1"), std::string(" 1"), std::string("1 "), std::string("1x"),
          std::string("0x1"), std::string("1.0"), std::string("1e3"), std::string("1\0", 2),
          std::string("\xd9\xa1")})
        EXPECT_EQ(parseNumber<TypeParam>(text), std::nullopt) << text;
}

TEST(Numbers, BeyondTheirEdgesNothingWraps) {
    EXPECT_EQ(parseNumber<std::uint16_t>("65536"), std::nullopt);
    EXPECT_EQ(parseNumber<std::uint32_t>("4294967296"), std::nullopt);
    EXPECT_EQ(parseNumber<std::uint32_t>("-1"), std::nullopt);
    EXPECT_EQ(parseNumber<int>("2147483648"), std::nullopt);
    EXPECT_EQ(parseNumber<int>("-2147483648"), std::numeric_limits<int>::min());
    EXPECT_EQ(parseNumber<std::int64_t>("9223372036854775808"), std::nullopt);
}

TEST(Numbers, OctalModes) {
    EXPECT_EQ(parseNumber<unsigned>("0660", 8), 0660U);
    EXPECT_EQ(parseNumber<unsigned>("777", 8), 0777U);
    for (const char* text : {"0888", "rw", "-660", "0o660", "40000000000"})
        EXPECT_EQ(parseNumber<unsigned>(text, 8), std::nullopt) << text;
}

}  // namespace
}  // namespace vorn
