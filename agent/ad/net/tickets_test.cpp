// SPDX-License-Identifier: Apache-2.0
// When the machine's ticket is taken anew, and what is no reason to try again at once.

#include "agent/ad/net/tickets.h"

#include <gtest/gtest.h>

namespace vexagent {
namespace {

constexpr std::time_t kHour = 3600;

TEST(TicketLife, OneThatWasNeverTakenIsDue) {
    const TicketLife life;
    EXPECT_TRUE(life.isDue(1'795'000'000));
    EXPECT_FALSE(life.serves(1'795'000'000));
}

TEST(TicketLife, IsOverWhenAFifthOfItIsLeft) {
    TicketLife life;
    life.begin(1000, 1000 + 10 * kHour);
    EXPECT_FALSE(life.isDue(1000));
    EXPECT_FALSE(life.isDue(1000 + 8 * kHour - 1));
    EXPECT_TRUE(life.isDue(1000 + 8 * kHour));
}

TEST(TicketLife, AShortOneIsOverAMinuteBeforeItsEnd) {
    TicketLife life;
    life.begin(1000, 1200);
    EXPECT_FALSE(life.isDue(1139));
    EXPECT_TRUE(life.isDue(1140));
}

TEST(TicketLife, AnOldOneServesUntilAMinuteBeforeItsEnd) {
    TicketLife life;
    life.begin(1000, 1000 + 10 * kHour);
    EXPECT_TRUE(life.serves(1000 + 10 * kHour - 61));
    EXPECT_FALSE(life.serves(1000 + 10 * kHour - 60));
}

TEST(TicketLife, AClockThatJumpsAheadMakesItDue) {
    TicketLife life;
    life.begin(1000, 1000 + 10 * kHour);
    EXPECT_TRUE(life.isDue(1000 + 1000 * kHour));
    EXPECT_FALSE(life.isDue(0));
}

TEST(Tickets, ARefusalOfTheMachineIsTheDomainsAndNotTheNetworks) {
    for (const krb5_error_code code :
         {KRB5KDC_ERR_PREAUTH_FAILED, KRB5KRB_AP_ERR_BAD_INTEGRITY, KRB5KDC_ERR_CLIENT_REVOKED,
          KRB5KDC_ERR_C_PRINCIPAL_UNKNOWN, KRB5KDC_ERR_KEY_EXP, KRB5KDC_ERR_NAME_EXP, KRB5KDC_ERR_POLICY})
        EXPECT_TRUE(isRefusalOfMachine(code)) << code;
    for (const krb5_error_code code : {KRB5_KDC_UNREACH, KRB5_REALM_UNKNOWN, KRB5KRB_AP_ERR_SKEW,
                                       KRB5_KT_NOTFOUND, KRB5KDC_ERR_ETYPE_NOSUPP})
        EXPECT_FALSE(isRefusalOfMachine(code)) << code;
}

}  // namespace
}  // namespace vexagent
