// SPDX-License-Identifier: Apache-2.0
#include "search/limits.h"

#include <gtest/gtest.h>

#include "tests/standin/slapd_standin.h"

namespace {

std::time_t now = 0;
std::time_t clock() {
    return now;
}

class LimitsTest : public testing::Test {
  protected:
    LimitsTest() {
        now = 1000;
        m_operation.op()->o_time = 1000;
    }
    Limits limits(int size, int seconds) {
        m_operation.op()->ors_slimit = size;
        m_operation.op()->ors_tlimit = seconds;
        return Limits(*m_operation.op(), clock);
    }

    standin::FakeConnection m_connection;
    standin::FakeOperation m_operation{m_connection};
};

TEST_F(LimitsTest, WithoutThemNothingEndsASearch) {
    const Limits none = limits(SLAP_NO_LIMIT, SLAP_NO_LIMIT);
    now = 1 << 30;
    EXPECT_EQ(none.size(), -1);
    EXPECT_TRUE(none.admitAfter(1 << 30));
    EXPECT_FALSE(none.reachedAfter(1 << 30));
}

TEST_F(LimitsTest, ASizeLimitAdmitsExactlySoManyEntries) {
    const Limits two = limits(2, SLAP_NO_LIMIT);
    EXPECT_TRUE(two.admitAfter(1));
    EXPECT_FALSE(two.reachedAfter(1));
    EXPECT_FALSE(two.admitAfter(2));
    EXPECT_EQ(two.reachedAfter(2), LDAP_SIZELIMIT_EXCEEDED);
    EXPECT_EQ(limits(0, SLAP_NO_LIMIT).reachedAfter(0), LDAP_SIZELIMIT_EXCEEDED);
}

TEST_F(LimitsTest, TheLastSecondOfATimeLimitIsWithinIt) {
    const Limits five = limits(SLAP_NO_LIMIT, 5);
    now = 1005;
    EXPECT_FALSE(five.reachedAfter(0));
    now = 1006;
    EXPECT_EQ(five.reachedAfter(0), LDAP_TIMELIMIT_EXCEEDED);
    EXPECT_TRUE(five.admitAfter(0)) << "it is none of entries";
    EXPECT_EQ(limits(SLAP_NO_LIMIT, 0).reachedAfter(0), LDAP_TIMELIMIT_EXCEEDED);
}

TEST_F(LimitsTest, OfBothTheSizeIsTold) {
    const Limits both = limits(1, 5);
    now = 2000;
    EXPECT_EQ(both.reachedAfter(0), LDAP_TIMELIMIT_EXCEEDED);
    EXPECT_EQ(both.reachedAfter(1), LDAP_SIZELIMIT_EXCEEDED);
}

}  // namespace
