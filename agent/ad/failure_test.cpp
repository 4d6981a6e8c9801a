// SPDX-License-Identifier: Apache-2.0
// What a client is told of a domain's failure.

#include "agent/ad/failure.h"

#include <gtest/gtest.h>

namespace vexagent {
namespace {

std::string told(const LdapFailure& failure) {
    const Result result = resultOf(failure);
    return std::to_string(result.code) + " " + std::to_string(result.errSystem) + " " +
           std::to_string(result.errCode) + " " + result.errText + " | " + result.detail;
}

TEST(LdapFailureTest, BecomesWhatAClientIsTold) {
    const struct {
        LdapFailure failure;
        const char* expected;
    } cases[] = {
        {{LDAP_NO_SUCH_OBJECT, "dn"}, "9 2 32 the search base does not exist | "},
        {{LDAP_INVALID_DN_SYNTAX, "dn"}, "9 2 32 the search base does not exist | "},
        {{LDAP_REFERRAL, "ldap://x"}, "9 2 32 the search base does not exist | "},
        {{LDAP_FILTER_ERROR, "(x"}, "11 2 -7 bad search filter | "},
        {{LDAP_NO_MEMORY, "out"}, "3 2 -10 out of memory | out"},
        {{LDAP_BUSY, "later"}, "8 2 51 Server is busy | later"},
        {{LDAP_SERVER_DOWN, "gone", true}, "12 2 -1 the domain is out of reach | gone"},
        {{LDAP_BUSY, "detail", false, "shown"}, "8 2 51 shown | detail"},
        {{LDAP_SERVER_DOWN, "detail", true, "shown"}, "12 2 -1 shown | detail"},
        {{LDAP_SUCCESS, "nothing"}, "8 2 80 Other (e.g., implementation specific) error | nothing"},
    };
    for (const auto& [failure, expected] : cases) EXPECT_EQ(told(failure), expected) << failure.code;
}

TEST(LdapFailureTest, MissingIsWhatIsNotThereOrInAnotherDirectory) {
    for (const int code : {LDAP_NO_SUCH_OBJECT, LDAP_INVALID_DN_SYNTAX, LDAP_REFERRAL})
        EXPECT_TRUE(isMissing(LdapFailure(code, ""))) << code;
    for (const int code : {LDAP_OTHER, LDAP_BUSY, LDAP_SERVER_DOWN, LDAP_TIMELIMIT_EXCEEDED})
        EXPECT_FALSE(isMissing(LdapFailure(code, ""))) << code;
}

TEST(LdapFailureTest, ATimeThatIsUpIsNobodysFault) {
    EXPECT_EQ(outOfTime().code, LDAP_TIMELIMIT_EXCEEDED);
    EXPECT_FALSE(outOfTime().lost);
    EXPECT_EQ(told(outOfTime()), "8 2 3 the time for the request is up | the time for the request is up");
}

}  // namespace
}  // namespace vexagent
