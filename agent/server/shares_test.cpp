// SPDX-License-Identifier: Apache-2.0
#include "agent/server/shares.h"

#include <gtest/gtest.h>

namespace vexagent {
namespace {

// Process, then user.
const Client kGreedy{10, 1};
const Client kTwin{11, 1};  // of the same user
const Client kOther{20, 2};

void add(Shares& shares, const Client& client, int count) {
    for (int i = 0; i < count; ++i) {
        ASSERT_TRUE(shares.hasPlaceFor(client)) << i;
        shares.add(client);
    }
}

TEST(Shares, OneProcessLeavesAQuarter) {
    Shares shares(16);
    add(shares, kGreedy, 12);
    EXPECT_FALSE(shares.hasPlaceFor(kGreedy));
    EXPECT_TRUE(shares.mayTake(kGreedy, kGreedy));
    EXPECT_FALSE(shares.mayTake(kGreedy, kTwin));
    EXPECT_FALSE(shares.mayTake(kGreedy, kOther));
    EXPECT_TRUE(shares.hasPlaceFor(kTwin));
    EXPECT_TRUE(shares.hasPlaceFor(kOther));
}

TEST(Shares, OneUserLeavesAnEighth) {
    Shares shares(16);
    add(shares, kGreedy, 12);
    add(shares, kTwin, 2);
    EXPECT_FALSE(shares.hasPlaceFor(kTwin));
    EXPECT_TRUE(shares.mayTake(kTwin, kTwin));
    EXPECT_TRUE(shares.mayTake(kTwin, kGreedy));
    EXPECT_FALSE(shares.mayTake(kTwin, kOther));
    add(shares, kOther, 2);
    EXPECT_FALSE(shares.hasPlaceFor(kOther));
}

TEST(Shares, PlacesThatCannotBeDividedAreKept) {
    Shares shares(31);
    add(shares, kGreedy, 24);
    EXPECT_FALSE(shares.hasPlaceFor(kGreedy));
    add(shares, kTwin, 4);
    EXPECT_FALSE(shares.hasPlaceFor(kTwin));
}

TEST(Shares, ANewcomerTakesFromWhoHoldsMore) {
    Shares shares(16);
    add(shares, kGreedy, 10);
    add(shares, kTwin, 4);
    add(shares, kOther, 2);
    EXPECT_TRUE(shares.mayTake(kOther, kGreedy));
    EXPECT_TRUE(shares.mayTake(kOther, kTwin));
    EXPECT_TRUE(shares.mayTake(kOther, kOther));
    EXPECT_TRUE(shares.holdsMore(kGreedy, kTwin));
    EXPECT_TRUE(shares.holdsMore(kTwin, kOther));
    const Client third{30, 3};
    EXPECT_TRUE(shares.mayTake(third, kOther));
    EXPECT_FALSE(shares.mayTake(kOther, third));
}

TEST(Shares, WhatIsGivenBackIsFree) {
    Shares shares(4);
    add(shares, kGreedy, 3);
    add(shares, kOther, 1);
    EXPECT_FALSE(shares.hasPlaceFor(kOther));
    shares.remove(kGreedy);
    EXPECT_TRUE(shares.hasPlaceFor(kOther));
    EXPECT_TRUE(shares.hasPlaceFor(kGreedy));
}

TEST(Shares, WhoGivesSomeBackHoldsTheRest) {
    Shares shares(16);
    add(shares, kGreedy, 3);
    add(shares, kOther, 2);
    shares.remove(kGreedy);
    shares.remove(kGreedy);
    EXPECT_TRUE(shares.holdsMore(kGreedy, kTwin));
    EXPECT_TRUE(shares.holdsMore(kOther, kGreedy));
    shares.remove(kGreedy);
    EXPECT_FALSE(shares.holdsMore(kGreedy, kTwin));
}

TEST(Shares, FewPlacesAreNotShared) {
    for (const int places : {1, 2, 3}) {
        Shares shares(static_cast<std::size_t>(places));
        add(shares, kGreedy, places);
        EXPECT_FALSE(shares.hasPlaceFor(kOther)) << places;
    }
}

}  // namespace
}  // namespace vexagent
