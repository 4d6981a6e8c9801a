// SPDX-License-Identifier: Apache-2.0
#include "vex/closings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vex {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(Closings, AreTakenOnce) {
    Closings closings;
    closings.add(7, 1);
    closings.add(7, 2);
    EXPECT_THAT(closings.take(7), ElementsAre(1, 2));
    EXPECT_THAT(closings.take(7), IsEmpty());
    closings.add(7, 3);
    EXPECT_THAT(closings.take(7), ElementsAre(3));
}

TEST(Closings, OfAnotherAgentAreForgotten) {
    Closings closings;
    closings.add(7, 1);
    closings.add(8, 2);
    EXPECT_THAT(closings.take(8), ElementsAre(2));
    EXPECT_THAT(closings.take(7), IsEmpty());
}

TEST(Closings, AreBounded) {
    Closings closings;
    for (std::size_t i = 0; i < Closings::kMost + 1; ++i) closings.add(7, i);
    EXPECT_EQ(closings.take(7).size(), Closings::kMost);
}

}  // namespace
}  // namespace vex
