// SPDX-License-Identifier: Apache-2.0
#include "standard/shadow.h"

#include <gmock/gmock.h>

#include "standard/kinds_testing.h"

namespace standard {
namespace {

using Line = std::pair<std::string, std::string>;

constexpr std::int64_t kDay = 86'400;
constexpr std::time_t kNow = 20'500 * kDay + 3600;  // an hour into day 20,500
const PasswordPolicy kPolicy = {90 * kDay, 1800};

AgentObject object(const std::vector<Line>& lines) {
    AgentObject made;
    for (const auto& [name, value] : lines) made.add(name, value);
    return made;
}

// As Active Directory writes a date.
std::string date(std::int64_t seconds) {
    return std::to_string((seconds + 11'644'473'600) * 10'000'000);
}

// "last change, max, expire".
std::string shadow(const std::vector<Line>& lines, const PasswordPolicy& policy = kPolicy) {
    const Shadow made = shadowOf(object(lines), policy, kNow);
    std::string text;
    for (const auto& days : {made.lastChange, made.max, made.expire})
        text += (text.empty() ? "" : " ") + (days ? std::to_string(*days) : "-");
    return text;
}

TEST(Shadow, IsOfThePasswordsAgeAndTheDomainsRule) {
    const std::string changed = date(20'450 * kDay + 5);
    EXPECT_EQ(shadow({{"userAccountControl", "512"}, {"pwdLastSet", changed}}), "20450 90 -");
    EXPECT_EQ(shadow({{"userAccountControl", "512"}, {"pwdLastSet", changed}}, {}), "20450 - -");
    EXPECT_EQ(shadow({{"userAccountControl", "66048"}, {"pwdLastSet", changed}}), "20450 - -")
        << "never expires";
    EXPECT_EQ(shadow({{"userAccountControl", "262656"}, {"pwdLastSet", changed}}), "20450 - -")
        << "a smartcard";
    EXPECT_EQ(shadow({{"userAccountControl", "512"}}), "- - -") << "nothing is known of it";
}

TEST(Shadow, TellsThatAPasswordMustBeChangedNow) {
    EXPECT_EQ(shadow({{"userAccountControl", "512"}, {"pwdLastSet", "0"}}), "0 90 -");
    EXPECT_EQ(shadow({{"userAccountControl", "66048"}, {"pwdLastSet", "0"}}), "- - -");
    EXPECT_EQ(shadow({{"userAccountControl", "512"}, {"pwdLastSet", "soon"}}), "0 90 -");
}

TEST(Shadow, ShutsADisabledAccount) {
    EXPECT_EQ(shadow({{"userAccountControl", "514"}}), "- - 1");
    EXPECT_EQ(shadow({{"userAccountControl", "514"}, {"accountExpires", date(kNow + 30 * kDay)}}), "- - 1");
}

TEST(Shadow, ShutsALockedAccountUntilItIsOpenAgain) {
    EXPECT_EQ(shadow({{"lockoutTime", date(kNow - 1799)}}), "- - 1");
    EXPECT_EQ(shadow({{"lockoutTime", date(kNow - 1800)}}), "- - -");
    EXPECT_EQ(shadow({{"lockoutTime", date(kNow - 100 * kDay)}}, {}), "- - 1")
        << "an administrator must open it";
    EXPECT_EQ(shadow({{"lockoutTime", "0"}}), "- - -");
}

TEST(Shadow, ShutsAnAccountFromTheMomentOfItsExpiryOn) {
    EXPECT_EQ(shadow({{"accountExpires", "0"}}), "- - -");
    EXPECT_EQ(shadow({{"accountExpires", "9223372036854775807"}}), "- - -");
    EXPECT_EQ(shadow({{"accountExpires", date(kNow + 1)}}), "- - 20501") << "open for the rest of the day";
    EXPECT_EQ(shadow({{"accountExpires", date(kNow)}}), "- - 20500");
    EXPECT_EQ(shadow({{"accountExpires", date(20'501 * kDay)}}), "- - 20501");
    EXPECT_EQ(shadow({{"accountExpires", "1"}}), "- - 1") << "never 0, which may mean never";
}

TEST(Shadow, ShutsAnAccountWhoseStateCannotBeRead) {
    EXPECT_EQ(shadow({{"userAccountControl", "512 "}}), "- - 1");
    EXPECT_EQ(shadow({{"userAccountControl", "512"}, {"userAccountControl", "514"}}), "- - 1");
    EXPECT_EQ(shadow({{"accountExpires", "never"}}), "- - 1");
    EXPECT_EQ(shadow({{"lockoutTime", "99999999999999999999"}}), "- - 1");
}

TEST(Policy, IsTheDomainObjects) {
    const PasswordPolicy known =
        policyOf(object({{"maxPwdAge", "-36288000000000"}, {"lockoutDuration", "-18000000000"}}));
    EXPECT_EQ(known.maxAge, 42 * kDay);
    EXPECT_EQ(known.lockout, 1800);
    const PasswordPolicy never =
        policyOf(object({{"maxPwdAge", "-9223372036854775808"}, {"lockoutDuration", "0"}}));
    EXPECT_EQ(never.maxAge, std::nullopt);
    EXPECT_EQ(never.lockout, std::nullopt);
    EXPECT_EQ(policyOf({}).maxAge, std::nullopt);
    EXPECT_EQ(policyOf(object({{"maxPwdAge", "x"}})).maxAge, std::nullopt);
}

TEST(ShadowEntry, IsTheAccountsWhereTheMapSaysSo) {
    Kind kind = makeKind("user", {},
                         {{"shadowLastChange", Match::Number, Form::Computed, {}, false},
                          {"shadowExpire", Match::Number, Form::Computed, {}, false}});
    ShownEntry entry;
    entry.classes = {"top", "SHADOWACCOUNT"};
    EXPECT_FALSE(wantsShadow(kind, entry));
    kind.shadowOfAccount = true;
    EXPECT_TRUE(wantsShadow(kind, entry));
    addShadow(kind, {20'450, 90, std::nullopt}, &entry);
    ASSERT_EQ(entry.attributes.size(), 1u) << "what the schema has not is not there";
    EXPECT_EQ(entry.attributes[0].attribute->name, "shadowLastChange");
    EXPECT_THAT(entry.attributes[0].values, testing::ElementsAre("20450"));
    entry.classes = {"top"};
    EXPECT_FALSE(wantsShadow(kind, entry));
}

}  // namespace
}  // namespace standard
