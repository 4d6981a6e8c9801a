// SPDX-License-Identifier: Apache-2.0
#include "vorn/guarded.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace vorn {
namespace {

TEST(Guarded, BeginsAsItsValueDoes) {
    EXPECT_EQ(*Guarded<int>().lock(), 0);
    EXPECT_EQ(*Guarded<std::string>("text").lock(), "text");
}

TEST(Guarded, CanOnlyBeReadWhereItIsConstant) {
    const Guarded<int> number(7);
    static_assert(std::is_same_v<decltype(*number.lock()), const int&>);
    EXPECT_EQ(*number.lock(), 7);
}

TEST(Guarded, IsOneThreadsAtATime) {
    constexpr int kRounds = 20'000;
    Guarded<std::vector<int>> counts(std::vector<int>(2));
    // Were two threads in there at once, one would undo what the other counts, and see it.
    const auto count = [&] {
        for (int i = 0; i < kRounds; ++i) {
            const auto held = counts.lock();
            ++held->front();
            ++held->back();
            EXPECT_EQ(held->front(), held->back());
        }
    };
    std::thread other(count);
    count();
    other.join();
    EXPECT_EQ(counts.lock()->front(), 2 * kRounds);
}

}  // namespace
}  // namespace vorn
