// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/controllers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vexagent {
namespace {

using ::testing::ElementsAre;

const Peer kOne{"one", 389};
const Peer kTwo{"two", 389};
const Peer kFar{"far", 389};

class ControllersTest : public ::testing::Test {
  protected:
    // "one two(later)": the order, and what is not due.
    std::vector<std::string> order() const {
        std::vector<std::string> names;
        for (const Controllers::Choice& choice : m_controllers.order(m_now))
            names.push_back(choice.peer.host + (choice.due ? "" : "(later)"));
        return names;
    }

    Moment m_now = Moment{} + std::chrono::hours(1);
    double m_random = 0.5;  // the middle of what is drawn
    Controllers m_controllers{[this] { return m_random; }};
};

TEST_F(ControllersTest, TheOrderIsThatOfTheListAsLongAsNothingIsKnown) {
    m_controllers.set({{kOne, 0}, {kTwo, 0}});
    EXPECT_THAT(order(), ElementsAre("one", "two"));
}

TEST_F(ControllersTest, TheOneInUseStaysInUse) {
    m_controllers.set({{kOne, 0}, {kTwo, 0}});
    m_controllers.failed(kOne, m_now, "refused");
    m_controllers.succeeded(kTwo);
    m_controllers.succeeded(kOne);  // answers again
    EXPECT_THAT(order(), ElementsAre("two", "one"));
}

TEST_F(ControllersTest, OneThatHasAnsweredSinceARequestBeganIsNotAtFaultForBeingLate) {
    m_controllers.set({{kOne, 0}, {kTwo, 0}});
    const Moment begin = m_now;
    m_controllers.answered(kOne, m_now + milliseconds(100));
    m_controllers.answered(kOne, Moment{});  // told late of an earlier one
    m_now += milliseconds(8000);
    EXPECT_FALSE(m_controllers.failed(kOne, m_now, "no answer in time", begin));
    EXPECT_FALSE(m_controllers.allDown(m_now));
    EXPECT_EQ(m_controllers.lastReason(), "");
    // A request that began after that answer; and one that was cut off.
    EXPECT_TRUE(m_controllers.failed(kOne, m_now, "no answer in time", begin + milliseconds(101)));
    EXPECT_THAT(order(), ElementsAre("two", "one(later)"));
    m_controllers.answered(kTwo, m_now);
    EXPECT_TRUE(m_controllers.failed(kTwo, m_now, "reset by peer"));
    EXPECT_TRUE(m_controllers.allDown(m_now));
    EXPECT_TRUE(m_controllers.failed(kFar, m_now, "nobody's", begin));  // that is no more among them
}

// It may be that it answers everything but what it is there for.
TEST_F(ControllersTest, OneThatWasLateComesAfterOthersForAWhile) {
    m_controllers.set({{kOne, 0}, {kTwo, 0}, {kFar, 1}});
    m_controllers.succeeded(kOne);
    const auto late = [this](const Peer& peer) {
        m_controllers.answered(peer, m_now);
        EXPECT_FALSE(m_controllers.failed(peer, m_now, "no answer in time", m_now));
    };
    late(kOne);
    EXPECT_THAT(order(), ElementsAre("two", "far", "one"));
    m_now += Controllers::kLateTime - milliseconds(1);
    EXPECT_THAT(order(), ElementsAre("two", "far", "one"));
    m_now += milliseconds(1);
    EXPECT_THAT(order(), ElementsAre("one", "two", "far"));
    late(kOne);
    m_controllers.succeeded(kOne);  // with another request
    EXPECT_THAT(order(), ElementsAre("one", "two", "far"));
    for (const Peer& peer : {kOne, kTwo, kFar}) late(peer);
    EXPECT_THAT(order(), ElementsAre("one", "two", "far"));
    EXPECT_FALSE(m_controllers.allDown(m_now));
}

TEST_F(ControllersTest, WhenOneHasAnsweredIsKnownForEach) {
    m_controllers.set({{kOne, 0}, {kTwo, 0}});
    m_controllers.answered(kOne, m_now);
    EXPECT_TRUE(m_controllers.hasAnsweredSince(kOne, m_now));
    EXPECT_FALSE(m_controllers.hasAnsweredSince(kOne, m_now + milliseconds(1)));
    EXPECT_FALSE(m_controllers.hasAnsweredSince(kTwo, m_now));
    EXPECT_FALSE(m_controllers.hasAnsweredSince(kFar, m_now));
}

TEST_F(ControllersTest, OneThatFailedIsLastUntilItIsDue) {
    m_controllers.set({{kOne, 0}, {kTwo, 0}});
    m_controllers.failed(kOne, m_now, "refused");
    EXPECT_THAT(order(), ElementsAre("two", "one(later)"));
    m_now += milliseconds(999);
    EXPECT_THAT(order(), ElementsAre("two", "one(later)"));
    m_now += milliseconds(1);
    EXPECT_THAT(order(), ElementsAre("two", "one"));
}

TEST_F(ControllersTest, TheDelayDoublesUpToItsLimitAndIsDrawn) {
    m_controllers.set({{kOne, 0}});
    const int seconds[] = {1, 2, 4, 8, 16, 32, 64, 120, 120};
    for (const int delay : seconds) {
        m_controllers.failed(kOne, m_now, "refused");
        m_now += std::chrono::seconds(delay) - milliseconds(1);
        EXPECT_FALSE(m_controllers.dueAgain(m_now)) << delay;
        m_now += milliseconds(1);
        EXPECT_TRUE(m_controllers.dueAgain(m_now)) << delay;
    }
    m_random = 0;  // half of it
    m_controllers.failed(kOne, m_now, "refused");
    EXPECT_FALSE(m_controllers.dueAgain(m_now + std::chrono::seconds(60) - milliseconds(1)));
    EXPECT_TRUE(m_controllers.dueAgain(m_now + std::chrono::seconds(60)));
}

TEST_F(ControllersTest, RequestsThatFailTogetherCountOnce) {
    m_controllers.set({{kOne, 0}});
    for (int i = 0; i < 10; ++i) EXPECT_TRUE(m_controllers.failed(kOne, m_now, "refused"));
    EXPECT_EQ(m_controllers.dueAgain(m_now + milliseconds(1000)), kOne);
}

TEST_F(ControllersTest, AFailureAfterASuccessIsTheFirstOne) {
    m_controllers.set({{kOne, 0}});
    m_controllers.failed(kOne, m_now, "refused");
    m_controllers.succeeded(kOne);
    m_controllers.failed(kOne, m_now, "refused");
    EXPECT_TRUE(m_controllers.allDown(m_now));
    EXPECT_TRUE(m_controllers.allDown(m_now + milliseconds(999)));
    EXPECT_FALSE(m_controllers.allDown(m_now + milliseconds(1000)));
}

TEST_F(ControllersTest, OneThatIsNotAmongThemIsNotUsed) {
    m_controllers.set({{kOne, 0}, {kTwo, 0}});
    m_controllers.succeeded(kFar);
    m_controllers.answered(kFar, m_now);
    EXPECT_THAT(order(), ElementsAre("one", "two"));
}

TEST_F(ControllersTest, ABetterClassIsUsedAgainWhenItAnswersAgain) {
    m_controllers.set({{kOne, 0}, {kFar, 1}});
    m_controllers.failed(kOne, m_now, "refused");
    m_controllers.succeeded(kFar);
    EXPECT_THAT(order(), ElementsAre("far", "one(later)"));
    m_now += std::chrono::seconds(2);
    EXPECT_THAT(order(), ElementsAre("far", "one"));  // tried apart from requests
    m_controllers.succeeded(kOne);
    EXPECT_THAT(order(), ElementsAre("one", "far"));
}

TEST_F(ControllersTest, AllAreDownOnlyWhenNoneIsDue) {
    m_controllers.set({{kOne, 0}, {kTwo, 0}});
    m_controllers.failed(kOne, m_now, "refused");
    EXPECT_FALSE(m_controllers.allDown(m_now));
    m_controllers.failed(kTwo, m_now, "no answer");
    EXPECT_TRUE(m_controllers.allDown(m_now));
    EXPECT_EQ(m_controllers.lastReason(), "no answer");
    m_controllers.succeeded(kTwo);
    EXPECT_FALSE(m_controllers.allDown(m_now));
}

TEST_F(ControllersTest, WhatIsKnownSurvivesANewList) {
    m_controllers.set({{kOne, 0}, {kTwo, 0}});
    m_controllers.failed(kOne, m_now, "refused");
    m_controllers.set({{kFar, 0}, {kOne, 0}});
    EXPECT_THAT(order(), ElementsAre("far", "one(later)"));
    EXPECT_EQ(m_controllers.size(), 2u);
    m_controllers.failed(kTwo, m_now, "is not there any more");
    EXPECT_THAT(order(), ElementsAre("far", "one(later)"));
}

}  // namespace
}  // namespace vexagent
