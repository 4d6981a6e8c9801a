// SPDX-License-Identifier: Apache-2.0
// What is remembered of people's names, and for how long.

#include "agent/ad/member_names.h"

#include <gtest/gtest.h>

#include "vorn/clock_testing.h"

namespace vexagent {
namespace {

using std::chrono::milliseconds;

class MemberNamesTest : public ::testing::Test {
  protected:
    static std::vector<std::string> people(std::size_t count) {
        return std::vector<std::string>(count, "ann");
    }
    bool knowsPrimaries(const std::string& domain, const std::string& rid) const {
        return m_names.primaries(domain, rid).has_value();
    }

    vorn::test::ManualClock m_clock;
    MemberNames m_names{m_clock};
};

TEST_F(MemberNamesTest, ANameIsGoodForAMinute) {
    EXPECT_EQ(m_names.find("cn=ann"), std::nullopt);
    m_names.keep("cn=ann", "ann");
    EXPECT_EQ(m_names.find("cn=ann"), "ann");
    m_clock.advance(milliseconds(60'000));
    EXPECT_EQ(m_names.find("cn=ann"), "ann");
    m_clock.advance(milliseconds(1));
    EXPECT_EQ(m_names.find("cn=ann"), std::nullopt);
    m_names.keep("cn=ann", "annie");
    EXPECT_EQ(m_names.find("cn=ann"), "annie");
}

TEST_F(MemberNamesTest, WhoDoesNotCountIsKnownForTenSeconds) {
    m_names.keep("cn=machine", "");
    m_clock.advance(milliseconds(10'000));
    EXPECT_EQ(m_names.find("cn=machine"), "");
    m_clock.advance(milliseconds(1));
    EXPECT_EQ(m_names.find("cn=machine"), std::nullopt);
}

TEST_F(MemberNamesTest, ManyOfOnePrimaryGroupAreKnownForTwentyTimesAsLongAsItTook) {
    m_names.keepPrimaries("example.com", "513", people(MemberNames::kMany + 1), milliseconds(50));
    m_clock.advance(milliseconds(1000));
    ASSERT_TRUE(knowsPrimaries("example.com", "513"));
    EXPECT_EQ(m_names.primaries("example.com", "513")->size(), MemberNames::kMany + 1);
    m_clock.advance(milliseconds(1));
    EXPECT_FALSE(knowsPrimaries("example.com", "513"));
}

TEST_F(MemberNamesTest, AFewOfOnePrimaryGroupAreReadEachTime) {
    m_names.keepPrimaries("example.com", "513", people(MemberNames::kMany), milliseconds(50));
    EXPECT_FALSE(knowsPrimaries("example.com", "513"));
}

TEST_F(MemberNamesTest, APrimaryGroupIsOneOfItsDomain) {
    m_names.keepPrimaries("example.com", "513", people(501), milliseconds(50));
    EXPECT_FALSE(knowsPrimaries("example.com", "51"));
    EXPECT_FALSE(knowsPrimaries("far.example.com", "513"));
}

TEST_F(MemberNamesTest, OneListTooManyForgetsTheOthers) {
    for (std::size_t i = 0; i < MemberNames::kMostPrimaries; ++i)
        m_names.keepPrimaries("example.com", std::to_string(i), people(501), milliseconds(50));
    EXPECT_TRUE(knowsPrimaries("example.com", "0"));
    m_names.keepPrimaries("example.com", "513", people(501), milliseconds(50));
    EXPECT_FALSE(knowsPrimaries("example.com", "0"));
    EXPECT_TRUE(knowsPrimaries("example.com", "513"));
}

TEST_F(MemberNamesTest, OneNameTooManyForgetsTheOthers) {
    for (std::size_t i = 0; i < MemberNames::kMostPeople; ++i) m_names.keep(std::to_string(i), "x");
    EXPECT_EQ(m_names.find("0"), "x");
    m_names.keep("one more", "y");
    EXPECT_EQ(m_names.find("0"), std::nullopt);
    EXPECT_EQ(m_names.find("one more"), "y");
}

}  // namespace
}  // namespace vexagent
