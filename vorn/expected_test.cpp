// SPDX-License-Identifier: Apache-2.0
#include "vorn/expected.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>

namespace vorn {
namespace {

using Number = Expected<int, std::string>;

Number half(int number) {
    if (number % 2 != 0) return unexpected(std::string("odd"));
    return number / 2;
}

TEST(Expected, IsWhatWasFoundOrWhyNot) {
    EXPECT_EQ(half(4).value(), 2);
    const Number none = half(3);
    ASSERT_FALSE(none);
    EXPECT_EQ(none.error(), "odd");
}

TEST(Expected, NoneComesIntoBeingByItself) {
    static_assert(!std::is_default_constructible_v<Number>);
    static_assert(!std::is_default_constructible_v<Expected<Done, std::string>>);
}

TEST(Expected, GoesOnFromWhatWasFoundOnly) {
    const auto twice = [](int number) { return 2 * number; };
    const Number same = half(8).map(twice);
    EXPECT_EQ(same.value(), 8);
    const Number none = half(5).map(twice);
    EXPECT_EQ(none.error(), "odd");
}

TEST(Expected, HandsOverWhatCannotBeCopied) {
    Expected<std::unique_ptr<int>, int> found = std::make_unique<int>(7);
    const std::unique_ptr<int> taken = std::move(found).value();
    EXPECT_EQ(*taken, 7);
}

TEST(Expected, OfWhatIsOnlyDone) {
    const auto act = [](bool can) -> Expected<Done, int> {
        if (!can) return unexpected(3);
        return Done();
    };
    EXPECT_TRUE(act(true));
    EXPECT_EQ(act(false).error(), 3);
}

}  // namespace
}  // namespace vorn
