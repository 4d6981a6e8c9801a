// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <new>
#include <optional>
#include <string>

#include "auth/credentials.h"
#include "auth/password_change.h"
#include "backend/base/failure.h"
#include "tests/standin/captured.h"
#include "tests/standin/vex_standin.h"

#include "tests/standin/slapd_standin.h"

namespace {

using namespace std::string_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr const char* kDn = "cn=ann,dc=x";

using Text = std::optional<std::string>;

std::string element(char tag, const std::string& content) {
    return std::string(1, tag) + static_cast<char>(content.size()) + content;
}

// RFC 3062, 2.1; what is not given is absent.
std::string wish(const Text& oldPassword, const Text& newPassword) {
    std::string parts;
    if (oldPassword) parts += element('\x81', *oldPassword);
    if (newPassword) parts += element('\x82', *newPassword);
    return element('\x30', parts);
}

class PasswordChange : public testing::Test {
  protected:
    void SetUp() override {
        standin::reset();
        standin::resetSlapd();
        standin::user(kDn, "old");
        back_vex_creds = new CredManager([] { return std::time_t{1000}; });
        remember(kDn);
    }
    void TearDown() override {
        delete back_vex_creds;
        back_vex_creds = nullptr;
        EXPECT_THAT(standin::leaks(), IsEmpty());
        EXPECT_THAT(standin::failures(), IsEmpty());
    }

    static void remember(const char* dn) { back_vex_creds->addCreds(1, dn, "old"); }
    static bool isRemembered(const char* dn) { return back_vex_creds->doCacheAuth(dn, "old") != 0; }

    int change(const std::string& data, const std::string& whose = kDn,
               const char* oid = LDAP_EXOP_MODIFY_PASSWD) {
        standin::FakeConnection client;
        standin::FakeOperation operation(client);
        operation.extended(kDn, oid, data);
        operation.dn(whose, whose);
        const int result = vex_back_extended(operation.op(), operation.reply());
        text = operation.reply()->sr_text != nullptr ? operation.reply()->sr_text : "";
        EXPECT_EQ(operation.reply()->sr_err, result);
        EXPECT_THAT(client.sent(), IsEmpty()) << "slapd sends the result";
        return result;
    }

    std::string text;
};

TEST_F(PasswordChange, TheAgentIsAskedOnceWithBothPasswords) {
    standin::forgetCalls();
    EXPECT_EQ(change(wish("old", "new")), LDAP_SUCCESS);
    EXPECT_EQ(text, "");
    EXPECT_THAT(standin::calls(),
                ElementsAre("vexSessionOpen(1, 21)",
                            R"(vexAuthChangePassword(session1, "cn=ann,dc=x", "old", "new"))",
                            "vexSessionClose(session1)"));
}

TEST_F(PasswordChange, TheOldPasswordIsForgottenWhateverNameItCameWith) {
    remember("CN=Ann,DC=X");
    EXPECT_EQ(change(wish("old", "new")), LDAP_SUCCESS);
    EXPECT_FALSE(isRemembered(kDn));
    EXPECT_FALSE(isRemembered("CN=Ann,DC=X"));
}

TEST_F(PasswordChange, ABindThatIsOnItsWayBringsTheOldPasswordBackNeither) {
    const auto before = back_vex_creds->clearings();
    EXPECT_EQ(change(wish("old", "new")), LDAP_SUCCESS);
    back_vex_creds->addCreds(1, kDn, "old", before);
    EXPECT_FALSE(isRemembered(kDn));
    back_vex_creds->addCreds(1, kDn, "old", back_vex_creds->clearings());
    EXPECT_TRUE(isRemembered(kDn));
}

TEST_F(PasswordChange, WhereNobodyKnowsWhichPasswordHoldsTheOldOneIsForgotten) {
    standin::protocolError(VEX_ERR_KERBEROS, 1, "lost");
    for (const vexCode code : {+VEX_BROKEN_SESSION, +VEX_DIRECTORY_ERROR, +VEX_UNAVAILABLE, 4711}) {
        remember(kDn);
        standin::answer("vexAuthChangePassword", code);
        EXPECT_NE(change(wish("old", "new")), LDAP_SUCCESS);
        EXPECT_FALSE(isRemembered(kDn)) << code;
    }
}

TEST_F(PasswordChange, WhoIsRefusedTakesNothingFromTheCache) {
    EXPECT_EQ(change(wish("wrong", "new")), LDAP_INVALID_CREDENTIALS);
    EXPECT_THAT(text, StartsWith("vexAuthChangePassword "));
    EXPECT_TRUE(isRemembered(kDn));
}

TEST_F(PasswordChange, WhatTheAgentSaysOfARefusalIsSaidToTheClient) {
    const struct {
        vexCode code;
        int said, result;
    } cases[] = {{VEX_REFUSED, 19, 19}, {VEX_REFUSED, 50, 50}, {VEX_NOT_SUPPORTED, 53, 50}};
    for (const auto& [code, said, result] : cases) {
        standin::answer("vexAuthChangePassword", code);
        standin::protocolError(VEX_ERR_LDAP, said, "not this one");
        EXPECT_EQ(change(wish("old", "new")), result);
        EXPECT_EQ(text, "not this one");
        EXPECT_TRUE(isRemembered(kDn));
    }
}

TEST_F(PasswordChange, ARefusalOfAnotherKindIsToldAsAnyFailure) {
    const struct {
        int system, said;
    } cases[] = {{VEX_ERR_AGENT, 19}, {VEX_ERR_LDAP, 0}, {VEX_ERR_LDAP, -1}, {VEX_ERR_LDAP, 14}};
    for (const auto& [system, said] : cases) {
        standin::answer("vexAuthChangePassword", VEX_REFUSED);
        standin::protocolError(system, said, "why");
        const int result = change(wish("old", "new"));
        EXPECT_TRUE(result != 0 && result != 19 && result != 50 && result != 53) << result;
        EXPECT_THAT(text, StartsWith("vexAuthChangePassword "));
    }
}

TEST_F(PasswordChange, NoFailureIsOneThatSlapdWouldTakeForLeaveToWrite) {
    standin::answer("vexAuthChangePassword", VEX_DIRECTORY_ERROR);
    standin::protocolError(VEX_ERR_LDAP, LDAP_UNWILLING_TO_PERFORM, "no");
    EXPECT_EQ(change(wish("old", "new")), LDAP_INSUFFICIENT_ACCESS);
}

TEST_F(PasswordChange, WithoutTheAgentItFails) {
    standin::answer("vexSessionOpen", VEX_BROKEN_SESSION);
    EXPECT_EQ(change(wish("old", "new")), LDAP_UNAVAILABLE);
    EXPECT_TRUE(isRemembered(kDn)) << "nobody was asked";
}

TEST_F(PasswordChange, WhatIsRefusedWithoutTheAgent) {
    const struct {
        std::string data;
        const char* whose;
        int result;
        std::string text;
    } cases[] = {
        {wish("old", "new"), "cn=ben,dc=x", 50, "people change their own passwords only"},
        {wish("old", "new"), "", 50, "people change their own passwords only"},
        {wish({}, "new"), kDn, 49, "the old password must be given, too"},
        {wish("", "new"), kDn, 49, "the old password must be given, too"},
        {wish("old", {}), kDn, 19, "the new password must be given: none is made up here"},
        {wish("old", ""), kDn, 19, "the new password must be given: none is made up here"},
        {wish("old\0er"s, "new"), kDn, 49, "the old password is not right"},
        {wish("old", "new\0er"s), kDn, 19, "a password cannot hold a NUL"},
        {"\x30\x02\x85\x00"s, kDn, 2, "data decoding error"},
    };
    standin::forgetCalls();
    for (const auto& [data, whose, result, why] : cases) {
        EXPECT_EQ(change(data, whose), result) << why;
        EXPECT_EQ(text, why);
    }
    EXPECT_THAT(standin::calls(), IsEmpty());
    EXPECT_TRUE(isRemembered(kDn));
}

TEST_F(PasswordChange, NoOtherOperationIsItsBusiness) {
    EXPECT_EQ(change(wish("old", "new"), kDn, "1.2.3"), LDAP_PROTOCOL_ERROR);
}

TEST_F(PasswordChange, ALongRefusalIsCutToWhatTheReplyHolds) {
    standin::answer("vexAuthChangePassword", VEX_REFUSED);
    standin::protocolError(VEX_ERR_LDAP, 19, std::string(9000, 'x'));
    EXPECT_EQ(change(wish("old", "new")), 19);
    EXPECT_EQ(text, std::string(kFailureTextBytes - 1, 'x'));
}

TEST_F(PasswordChange, AnExceptionIsAnInternalError) {
    standin::onCall("vexAuthChangePassword", [] { throw std::bad_alloc(); });
    EXPECT_EQ(change(wish("old", "new")), LDAP_OTHER);
    EXPECT_EQ(text, "internal error");
    standin::onCall("vexAuthChangePassword", nullptr);
}

}  // namespace
