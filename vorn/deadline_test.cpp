// SPDX-License-Identifier: Apache-2.0
#include "vorn/deadline.h"

#include <gtest/gtest.h>

#include "vorn/clock_testing.h"

namespace vorn {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

class DeadlineTest : public ::testing::Test {
  protected:
    test::ManualClock m_clock;
};

TEST_F(DeadlineTest, PassesAtItsEndAndNotBefore) {
    const Deadline deadline(m_clock, milliseconds(10));
    m_clock.advance(milliseconds(9));
    EXPECT_FALSE(deadline.passed());
    m_clock.advance(milliseconds(1));
    EXPECT_TRUE(deadline.passed());
}

TEST_F(DeadlineTest, WhatIsLeftIsRoundedUpAndNeverBelowZero) {
    const Deadline deadline(m_clock, m_clock.now() + microseconds(1500));
    EXPECT_EQ(deadline.left(), milliseconds(2));
    m_clock.advance(milliseconds(1));
    EXPECT_EQ(deadline.left(), milliseconds(1));
    m_clock.advance(milliseconds(7));
    EXPECT_EQ(deadline.left(), milliseconds(0));
}

TEST_F(DeadlineTest, AShareIsAPartOfWhatIsLeftOrTheMost) {
    const Deadline deadline(m_clock, milliseconds(100));
    EXPECT_EQ(deadline.share(milliseconds(40), 2), milliseconds(40));
    EXPECT_EQ(deadline.share(milliseconds(60), 2), milliseconds(50));
    m_clock.advance(milliseconds(90));
    EXPECT_EQ(deadline.share(milliseconds(60), 2), milliseconds(5));
}

TEST_F(DeadlineTest, AnEarlierOneIsOfTheSameRequest) {
    const Moment begin = m_clock.now();
    const Deadline deadline(m_clock, milliseconds(100));
    m_clock.advance(milliseconds(30));
    const Deadline earlier = deadline.atMost(milliseconds(20));
    EXPECT_EQ(earlier.begin(), begin);
    EXPECT_EQ(earlier.end(), begin + milliseconds(50));
    EXPECT_EQ(&earlier.clock(), &deadline.clock());
    EXPECT_EQ(deadline.atMost(milliseconds(71)).end(), deadline.end()) << "never a later one";
}

TEST(SystemSteadyClock, IsTheOneOfTheStandardLibrary) {
    const Moment before = std::chrono::steady_clock::now();
    const Moment now = systemSteadyClock().now();
    EXPECT_LE(before, now);
    EXPECT_LE(now, std::chrono::steady_clock::now());
}

TEST(SystemMicroseconds, AreTheSystemsCalendarTime) {
    EXPECT_NEAR(static_cast<double>(systemMicroseconds()) / 1e6, static_cast<double>(std::time(nullptr)), 2);
}

}  // namespace
}  // namespace vorn
