// SPDX-License-Identifier: Apache-2.0
// The memberUid values that are stored with groups.

#include "agent/ad/stored_members.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/ad/forest_testing.h"

namespace vexagent {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

class StoredMembersTest : public ::testing::Test {
  protected:
    StoredMembersTest() {
        m_first = m_forest.addGroup("first", {{"memberUid", {"ann", "ben"}}});
        m_second = m_forest.addGroup("second", {{"memberUid", {"ann"}}});
        m_forest.addPerson("odd", {{"memberUid", {"ann"}}});
        m_forest.domain.answersAfter = milliseconds(2);
    }
    std::vector<std::string> groupsOf(const std::string& name) {
        auto guids = m_stored.groupsOf(m_forest.place, name, m_forest.soon());
        EXPECT_TRUE(guids.has_value());
        return guids ? *guids : std::vector<std::string>{"failure"};
    }
    std::size_t asked() { return m_forest.network.takeExchanges().size(); }
    void pass(milliseconds time) { m_forest.network.time.advance(time); }

    test::ExampleForest m_forest;
    std::string m_first, m_second;
    StoredMembers m_stored{m_forest.network};
};

TEST_F(StoredMembersTest, AreThoseOfGroups) {
    EXPECT_THAT(groupsOf("ann"),
                UnorderedElementsAre(FakeDomain::guidOf(m_first), FakeDomain::guidOf(m_second)));
    EXPECT_THAT(groupsOf("ben"), ElementsAre(FakeDomain::guidOf(m_first)));
    EXPECT_THAT(groupsOf("Ben"), IsEmpty());
    EXPECT_THAT(groupsOf(""), IsEmpty());
    EXPECT_EQ(asked(), 1u);
}

TEST_F(StoredMembersTest, AreReadAgainAfterATenthOfASecond) {
    groupsOf("ann");
    m_forest.domain.remove(m_first);
    pass(milliseconds(100));
    EXPECT_EQ(groupsOf("ben").size(), 1u);
    pass(milliseconds(1));
    EXPECT_THAT(groupsOf("ben"), IsEmpty());
    EXPECT_EQ(asked(), 2u);
}

TEST_F(StoredMembersTest, AreReadAgainAfterTwentyTimesAsLongAsThatTook) {
    m_forest.domain.answersAfter = milliseconds(50);
    groupsOf("ann");
    pass(milliseconds(1000));
    groupsOf("ann");
    EXPECT_EQ(asked(), 1u);
    pass(milliseconds(1));
    groupsOf("ann");
    EXPECT_EQ(asked(), 1u);
}

TEST_F(StoredMembersTest, AreThoseOfOneDomain) {
    groupsOf("ann");
    m_forest.addDomain("far.example.com", "FAR");
    const auto guids = m_stored.groupsOf({"far.example.com"}, "ann", m_forest.soon());
    ASSERT_TRUE(guids.has_value());
    EXPECT_THAT(*guids, IsEmpty());
    EXPECT_EQ(groupsOf("ann").size(), 2u);
    EXPECT_EQ(asked(), 2u);
}

TEST_F(StoredMembersTest, AFailureIsOneAndTheNextAsksAgain) {
    m_forest.domain.next(Mishap::fail(Mishap::When::Middle, Mishap::unreachable()));
    EXPECT_FALSE(m_stored.groupsOf(m_forest.place, "ann", m_forest.soon()).has_value());
    EXPECT_EQ(groupsOf("ann").size(), 2u);
}

TEST_F(StoredMembersTest, WhatWasReadBeforeDoesNotStandInForAFailure) {
    groupsOf("ann");
    pass(milliseconds(101));
    m_forest.domain.answers = false;
    EXPECT_FALSE(m_stored.groupsOf(m_forest.place, "ann", m_forest.soon()).has_value());
}

TEST_F(StoredMembersTest, FromAnotherControllerTheyComeOnce) {
    m_forest.domain.next(Mishap::failOver(Mishap::When::Middle));
    EXPECT_EQ(groupsOf("ann").size(), 2u);
}

}  // namespace
}  // namespace vexagent
