// SPDX-License-Identifier: Apache-2.0
#include "vorn/remembered.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <string_view>

namespace {

using vorn::Remembered;

TEST(Remembered, ATextIsNewOnce) {
    Remembered seen(1000);
    EXPECT_FALSE(seen.has("a"));
    EXPECT_TRUE(seen.add("a"));
    EXPECT_TRUE(seen.has("a"));
    EXPECT_FALSE(seen.add("a"));
    EXPECT_FALSE(seen.has("A"));
    seen.forget();
    EXPECT_TRUE(seen.add("a"));
}

TEST(Remembered, ANulIsAByteLikeAnother) {
    using std::string_view_literals::operator""sv;
    Remembered seen(1000);
    seen.add("a\0b"sv);
    EXPECT_FALSE(seen.has("a"));
    EXPECT_FALSE(seen.has("a\0c"sv));
    EXPECT_TRUE(seen.has("a\0b"sv));
}

TEST(Remembered, ItStaysBelowItsBoundWhateverIsAdded) {
    Remembered seen(100'000);
    int fewest = 100'000, remembered = 0;
    for (int i = 0; i < 2000; ++i) {
        const std::string text = std::to_string(i) + std::string(1000, 'x');
        EXPECT_TRUE(seen.add(text));
        EXPECT_TRUE(seen.has(text));
        remembered = 0;
        for (int past = i; past >= 0 && seen.has(std::to_string(past) + std::string(1000, 'x')); --past)
            ++remembered;
        ASSERT_LT(remembered, 100);
        if (i > 100) fewest = std::min(fewest, remembered);
    }
    EXPECT_EQ(fewest, 1) << "it began anew";
}

TEST(Remembered, WhatIsLongerThanTheBoundIsNewEachTimeAndCostsNobodyHisPlace) {
    Remembered seen(1000);
    seen.add("short");
    for (int i = 0; i < 2; ++i) EXPECT_TRUE(seen.add(std::string(1001, 'x')));
    EXPECT_TRUE(seen.has("short"));
}

}  // namespace
