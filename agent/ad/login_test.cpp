// SPDX-License-Identifier: Apache-2.0
// What refused log-ins mean.

#include "agent/ad/login.h"

#include <gtest/gtest.h>
#include <krb5.h>

#include "agent/directory/verdict.h"

namespace vexagent {
namespace {

Entry account(const std::vector<Attribute>& attributes) {
    return {"CN=x", attributes};
}

std::string outcome(const Verdict& verdict) {
    const Result& result = verdict.result();
    return std::to_string(result.code) + " " + std::to_string(result.errSystem) + " " +
           std::to_string(result.errCode) + " " + result.errText +
           (result.detail.empty() ? "" : " | " + result.detail);
}

TEST(LoginResult, OfKerberos) {
    const Entry plain =
        account({{"userAccountControl", {"512"}}, {"pwdLastSet", {"1"}}, {"lockoutTime", {"0"}}});
    const struct {
        krb5_error_code code;
        Entry entry;
        const char* expected;
    } cases[] = {
        {KRB5KDC_ERR_C_PRINCIPAL_UNKNOWN, plain, "13 2 49 no such user"},
        {KRB5KDC_ERR_PREAUTH_FAILED, plain, "14 2 49 wrong password"},
        {KRB5KRB_AP_ERR_BAD_INTEGRITY, plain, "14 2 49 wrong password"},
        {KRB5KDC_ERR_CLIENT_REVOKED, account({{"userAccountControl", {"514"}}}),
         "14 2 49 wrong password | the account is disabled"},
        {KRB5KDC_ERR_CLIENT_REVOKED, account({{"accountExpires", {"132223104000000000"}}}),
         "14 2 49 wrong password | the account has expired"},
        {KRB5KDC_ERR_CLIENT_REVOKED,
         account({{"accountExpires", {"9223372036854775807"}}, {"lockoutTime", {"1"}}}),
         "14 2 49 wrong password | the account is locked out"},
        {KRB5KDC_ERR_CLIENT_REVOKED, account({}), "14 2 49 wrong password | the account may not log in now"},
        {KRB5KDC_ERR_CLIENT_REVOKED,
         account({{"userAccountControl", {"x"}}, {"accountExpires", {"x"}}, {"lockoutTime", {"0"}}}),
         "14 2 49 wrong password | the account may not log in now"},
        {KRB5KDC_ERR_CLIENT_REVOKED, account({{"lockoutTime", {"x"}}}),
         "14 2 49 wrong password | the account is locked out"},
        {KRB5KDC_ERR_CLIENT_REVOKED, account({{"accountExpires", {"132444736000000000"}}}),
         "14 2 49 wrong password | the account has expired"},  // just now
        {KRB5KDC_ERR_CLIENT_REVOKED, account({{"accountExpires", {"132444736010000000"}}}),
         "14 2 49 wrong password | the account may not log in now"},  // in a second
        {KRB5KDC_ERR_CLIENT_REVOKED, plain, "14 2 49 wrong password | the account may not log in now"},
        {KRB5KDC_ERR_NAME_EXP, plain, "14 2 49 wrong password | the account has expired"},
        {KRB5KDC_ERR_KEY_EXP, plain, "14 2 49 wrong password | the password has expired"},
        {KRB5KDC_ERR_KEY_EXP, account({{"pwdLastSet", {"0"}}}),
         "14 2 49 wrong password | the password must be changed"},
        {KRB5KDC_ERR_KEY_EXP, account({}), "14 2 49 wrong password | the password has expired"},
        {KRB5KDC_ERR_POLICY, plain, "14 2 49 wrong password | the account may not log in here or now"},
        {KRB5KDC_ERR_ETYPE_NOSUPP, account({{"pwdLastSet", {"0"}}}), "14 2 49 wrong password"},
        {KRB5KDC_ERR_ETYPE_NOSUPP, account({}),
         "14 2 49 wrong password | the account has no password that Kerberos could check"},
        {KRB5KDC_ERR_ETYPE_NOSUPP, plain,
         "14 2 49 wrong password | the account has no password that Kerberos could check"},
        {KRB5KRB_AP_ERR_SKEW, plain,
         "8 3 -1765328347 the clocks of this host and the controller differ too much | "
         "the clocks of this host and the controller differ too much: text"},
        {KRB5_KDC_UNREACH, plain,
         "12 2 52 no KDC of the domain can be reached to check the password | "
         "no KDC of the domain can be reached to check the password: text"},
        {KRB5_REALM_UNKNOWN, plain,
         "12 2 52 no KDC of the domain can be reached to check the password | "
         "no KDC of the domain can be reached to check the password: text"},
        {KRB5KDC_ERR_S_PRINCIPAL_UNKNOWN, plain,
         "8 3 -1765328377 the password could not be checked | the password could not be checked: text"},
    };
    for (const auto& [code, entry, expected] : cases)
        EXPECT_EQ(outcome(loginFailure(KdcFailure{code, "text"}, entry, 1'600'000'000)), expected) << code;
}

TEST(LoginResult, NothingThatWentWellProvesAPassword) {
    const Entry plain = account({});
    EXPECT_EQ(outcome(loginFailure(KdcFailure{0, ""}, plain, 0)),
              "8 3 0 the password could not be checked | the password could not be checked: ");
    EXPECT_FALSE(loginFailure(LdapFailure(LDAP_SUCCESS, "")).ok());
    EXPECT_EQ(outcome(Verdict(Result())), "8 1 8 the password was not checked");
    EXPECT_EQ(outcome(Verdict(Result::ldap(VEX_WRONG_PASSWORD, LDAP_SUCCESS, ""))),
              "8 1 8 the password was not checked");
    static_assert(!std::is_default_constructible_v<Verdict>);
    static_assert(!std::is_default_constructible_v<Accepted>);
    static_assert(!std::is_aggregate_v<Accepted>);
    static_assert(!std::is_constructible_v<Verdict, bool> && !std::is_constructible_v<Verdict, LdapFailure>);
}

TEST(LoginResult, AnAnswerThatIsNotTheDomainsIsNoSuccess) {
    EXPECT_EQ(outcome(loginFailure(KdcFailure{KRB5_KT_NOTFOUND, "text", false}, account({}), 0)),
              "8 3 -1765328203 the answer to the password check could not be verified with the keytab | "
              "the answer to the password check could not be verified with the keytab: text");
}

TEST(LoginResult, AClientLearnsNoAddress) {
    const LdapFailure lost{LDAP_SERVER_DOWN, "192.0.2.1 port 389: refused", true};
    EXPECT_EQ(resultOf(lost).errText, "the domain is out of reach");
    EXPECT_EQ(resultOf(lost).detail, lost.text);
    const LdapFailure refused{LDAP_INSUFFICIENT_ACCESS, "00002098: SecErr, dc1.example.com"};
    EXPECT_EQ(resultOf(refused).errText, "Insufficient access");
    EXPECT_EQ(resultOf(refused).detail, refused.text);
    EXPECT_EQ(resultOf(outOfTime()).errText, "the time for the request is up");
}

TEST(LoginResult, AStateThatCannotBeReadIsARefusal) {
    EXPECT_FALSE(unreadableState(account({})));
    EXPECT_FALSE(unreadableState(account({{"userAccountControl", {"512"}}, {"accountExpires", {"0"}}})));
    for (const char* name : {"userAccountControl", "accountExpires"})
        for (const char* value : {"0x202", "514 ", "99999999999999999999", ""}) {
            const auto refusal = unreadableState(account({{name, {value}}}));
            ASSERT_TRUE(refusal) << name << ": " << value;
            EXPECT_EQ(outcome(*refusal), "15 2 49 the account's state cannot be read");
        }
    EXPECT_TRUE(unreadableState(account({{"userAccountControl", {"512", "514"}}})));
}

TEST(LoginResult, OfABind) {
    const auto text = [](const char* data) {
        return "Invalid credentials: 80090308: LdapErr: DSID-0C09, comment: AcceptSecurityContext error, "
               "data " +
               std::string(data) + ", v4563";
    };
    const std::pair<const char*, const char*> cases[] = {
        {"52e", "14 2 49 wrong password"},
        {"525", "13 2 49 no such user"},
        {"530", "15 2 49 the account may not log in here or now"},
        {"531", "15 2 49 the account may not log in here or now"},
        {"532", "15 2 49 the password has expired"},
        {"533", "15 2 49 the account is disabled"},
        {"701", "15 2 49 the account has expired"},
        {"773", "15 2 49 the password must be changed"},
        {"775", "14 2 49 wrong password | the account is locked out"},
        {"xyz", "14 2 49 wrong password"},
    };
    for (const auto& [data, expected] : cases)
        EXPECT_EQ(outcome(loginFailure(LdapFailure{LDAP_INVALID_CREDENTIALS, text(data)})), expected) << data;
    EXPECT_EQ(outcome(loginFailure(LdapFailure{LDAP_SERVER_DOWN, "gone", true})),
              "12 2 -1 the domain is out of reach | gone");
    EXPECT_EQ(outcome(loginFailure(LdapFailure{LDAP_STRONG_AUTH_REQUIRED, "stronger"})),
              "8 2 8 Strong(er) authentication required | stronger");
}

TEST(LoginResult, ATextWithoutAReasonIsAWrongPassword) {
    for (const char* text : {"", "Invalid credentials", "data", "data ", "data  533", "533"})
        EXPECT_EQ(loginFailure(LdapFailure{LDAP_INVALID_CREDENTIALS, text}).code, VEX_WRONG_PASSWORD) << text;
}

}  // namespace
}  // namespace vexagent
