// SPDX-License-Identifier: Apache-2.0
// How often the agent shows its own password.

#include "agent/ad/net/own_login.h"

#include <gtest/gtest.h>

#include <thread>

#include "vorn/clock_testing.h"
#include "vorn/temporary_folder_testing.h"

namespace vexagent {
namespace {

using std::chrono::seconds;

const Peer kFirst{"dc1.example.com", 389};
const Peer kSecond{"dc2.example.com", 389};
const Peer kThird{"dc3.example.com", 389};

// Refuses everything at any controller; requests come every second.
std::vector<long> attempts(const std::vector<Peer>& peers, seconds time) {
    OwnLogin login;
    std::vector<long> moments;
    const Moment start = vorn::test::ManualClock().now();
    for (seconds second{0}; second < time; ++second)
        for (const Peer& peer : peers)
            if (login.mayTry(peer, start + second)) {
                moments.push_back(second.count());
                login.refused(peer, start + second);
            }
    return moments;
}

TEST(OwnLogin, IsTriedOnceMoreElsewhereAndThenEverMoreRarely) {
    const std::vector<long> one = {0, 5, 15, 35, 75, 155, 315, 635, 1275, 2175, 3075};
    EXPECT_EQ(attempts({kFirst}, seconds(3600)), one);
    const std::vector<long> several = {0, 0, 5, 15, 35, 75, 155, 315, 635, 1275, 2175, 3075};
    EXPECT_EQ(attempts({kFirst, kSecond}, seconds(3600)), several);
    EXPECT_EQ(attempts({kFirst, kSecond, kThird}, seconds(3600)), several);
}

TEST(OwnLogin, NeverWaitsLongerThanAQuarterOfAnHour) {
    OwnLogin login;
    Moment time = vorn::test::ManualClock().now();
    for (int i = 0; i < 100; ++i, time += OwnLogin::kLongestDelay) {
        EXPECT_TRUE(login.mayTry(kFirst, time)) << i;
        login.refused(kFirst, time);
    }
}

TEST(OwnLogin, IsFreeOnceItIsAccepted) {
    OwnLogin login;
    const Moment time = vorn::test::ManualClock().now();
    login.refused(kFirst, time);
    login.refused(kSecond, time);
    EXPECT_FALSE(login.mayTry(kThird, time));
    login.accepted(kSecond, time + seconds(5));
    EXPECT_TRUE(login.mayTry(kSecond, time + seconds(5)));
    EXPECT_TRUE(login.mayTry(kThird, time + seconds(5)));
}

// One controller that alone refuses is not asked for ever, either.
TEST(OwnLogin, AControllerThatRefusesAloneIsAskedEverMoreRarely) {
    OwnLogin login;
    const Moment start = vorn::test::ManualClock().now();
    int refusals = 0;
    for (seconds second{0}; second < seconds(3600); ++second) {
        if (login.mayTry(kFirst, start + second)) {
            login.refused(kFirst, start + second);
            ++refusals;
        }
        EXPECT_TRUE(login.mayTry(kSecond, start + second));
        login.accepted(kSecond, start + second);
    }
    EXPECT_EQ(refusals, 11);
}

TEST(OwnLogin, IsToldOnceUntilAllIsWellAgain) {
    OwnLogin login;
    const Moment time = vorn::test::ManualClock().now();
    EXPECT_TRUE(login.refused(kFirst, time));
    EXPECT_FALSE(login.refused(kSecond, time));
    EXPECT_FALSE(login.refused(kFirst, time + seconds(5)));
    EXPECT_FALSE(login.accepted(kFirst, time + seconds(15)));
    EXPECT_FALSE(login.refused(kFirst, time + seconds(16)));
    EXPECT_FALSE(login.accepted(kFirst, time + seconds(17)));
    EXPECT_TRUE(login.accepted(kSecond, time + seconds(17)));
    EXPECT_FALSE(login.accepted(kSecond, time + seconds(18)));
    EXPECT_TRUE(login.refused(kFirst, time + seconds(19)));
}

TEST(OwnLogin, AnotherPasswordIsTriedAtOnce) {
    const vorn::test::TemporaryFolder folder;
    folder.write("password", "old\n");
    const std::string file = folder.file("password");
    OwnLogin login;
    const Moment time = vorn::test::ManualClock().now();
    login.use(stampOf(file));
    login.refused(kFirst, time);
    login.refused(kSecond, time);
    login.use(stampOf(file));
    EXPECT_FALSE(login.mayTry(kFirst, time));
    folder.write("password", "another\n");
    login.use(stampOf(file));
    EXPECT_TRUE(login.mayTry(kFirst, time));
    EXPECT_TRUE(login.refused(kFirst, time));
}

TEST(OwnLogin, IsShownByOneAtATimeUntilOneIsLetIn) {
    OwnLogin login;
    vorn::test::ManualClock clock;
    const Deadline soon(clock, milliseconds(5000));
    const Deadline over(clock, milliseconds(0));
    {
        const auto turn = login.takeTurn(soon);
        EXPECT_TRUE(turn.owns_lock());
        std::thread([&] { EXPECT_FALSE(login.takeTurn(over).owns_lock()); }).join();
    }
    login.accepted(kFirst, clock.now());
    clock.advance(OwnLogin::kTrustTime - milliseconds(1));
    EXPECT_FALSE(login.takeTurn(soon).owns_lock()) << "nobody waits where all is well";
    clock.advance(milliseconds(1));
    EXPECT_TRUE(login.takeTurn(soon).owns_lock());
    login.accepted(kFirst, clock.now());
    login.refused(kFirst, clock.now());
    EXPECT_TRUE(login.takeTurn(soon).owns_lock());
}

}  // namespace
}  // namespace vexagent
