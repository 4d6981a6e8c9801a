// SPDX-License-Identifier: Apache-2.0
// What is remembered of hosts' addresses, and for how long it is not looked up again.

#include "agent/ad/net/addresses.h"

#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>

#include "vorn/clock_testing.h"

namespace vexagent {
namespace {

using std::chrono::milliseconds;

Address numbered(std::uint32_t number) {
    Address address;
    auto* in = reinterpret_cast<sockaddr_in*>(&address.bytes);
    in->sin_family = AF_INET;
    in->sin_addr.s_addr = number;
    address.size = sizeof *in;
    return address;
}

TEST(KnownAddresses, AreFreshForHalfAMinuteAndKnownAfterThat) {
    vorn::test::ManualClock clock;
    KnownAddresses known;
    EXPECT_FALSE(known.find("dc1", clock.now()));
    known.keep("dc1", {numbered(1)}, clock.now());
    clock.advance(KnownAddresses::kFreshTime - milliseconds(1));
    ASSERT_TRUE(known.find("dc1", clock.now()));
    EXPECT_TRUE(known.find("dc1", clock.now())->fresh);
    clock.advance(milliseconds(1));
    ASSERT_TRUE(known.find("dc1", clock.now()));
    EXPECT_FALSE(known.find("dc1", clock.now())->fresh);
    EXPECT_EQ(known.find("dc1", clock.now())->addresses.size(), 1u);
}

TEST(KnownAddresses, WhatIsFoundAnewTakesTheOldOnesPlace) {
    vorn::test::ManualClock clock;
    KnownAddresses known;
    known.keep("dc1", {numbered(1)}, clock.now());
    known.keep("dc1", {numbered(2), numbered(3)}, clock.now());
    EXPECT_EQ(known.find("dc1", clock.now())->addresses.size(), 2u);
}

TEST(KnownAddresses, AreNotCollectedWithoutEnd) {
    vorn::test::ManualClock clock;
    KnownAddresses known;
    for (std::size_t i = 0; i < KnownAddresses::kMost; ++i)
        known.keep("host" + std::to_string(i), {numbered(1)}, clock.now());
    known.keep("host0", {numbered(2)}, clock.now());
    EXPECT_TRUE(known.find("host1", clock.now())) << "one that is known takes no room";
    known.keep("one more", {numbered(1)}, clock.now());
    EXPECT_FALSE(known.find("host1", clock.now()));
    EXPECT_TRUE(known.find("one more", clock.now()));
}

TEST(Addresses, AnAddressAsTextIsLookedUpNowhere) {
    vorn::test::ManualClock clock;
    const vorn::Deadline over(clock, milliseconds(0));
    const auto four = addressesOf("127.0.0.1", over);
    ASSERT_TRUE(four);
    EXPECT_EQ(four->front().bytes.ss_family, AF_INET);
    const auto six = addressesOf("::1", over);
    ASSERT_TRUE(six);
    EXPECT_EQ(six->front().bytes.ss_family, AF_INET6);
}

TEST(Addresses, ANameIsWaitedForUntilTheDeadlineAndKnownFromThenOn) {
    vorn::test::ManualClock clock;
    const vorn::Deadline plenty(clock, std::chrono::seconds(60));
    const auto found = addressesOf("localhost", plenty);
    ASSERT_TRUE(found) << ::gai_strerror(found.error());
    const vorn::Deadline over(clock, milliseconds(0));
    EXPECT_TRUE(addressesOf("localhost", over)) << "it is known, and fresh";
    clock.advance(KnownAddresses::kFreshTime);
    EXPECT_TRUE(addressesOf("localhost", over)) << "it is known";
}

}  // namespace
}  // namespace vexagent
