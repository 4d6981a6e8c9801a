// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <set>
#include <string>

#include "tests/standin/vex_standin.h"

#include "backend/base/agent_turns.h"
#include "backend/base/failure.h"
#include "tests/standin/slapd_standin.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class FailureTest : public testing::Test {
  protected:
    FailureTest() {
        standin::reset();
        standin::resetSlapd();
        vexSessionOpen(1, 21, &m_session);
        standin::forgetCalls();
    }
    ~FailureTest() override {
        if (m_session != nullptr) vexSessionClose(m_session);
        EXPECT_THAT(standin::leaks(), IsEmpty());
        EXPECT_THAT(standin::failures(), IsEmpty());
    }

    // Reports a failure as a handler does and gives what the client was sent.
    standin::Sent report(vexCode code, int size = 511, int preset = 0) {
        standin::FakeConnection connection;
        standin::FakeOperation operation(connection);
        operation.reply()->sr_err = preset;
        send_vex_err_info(m_session, "vexAuth ", code, size, m_text, operation.op(), operation.reply());
        EXPECT_EQ(operation.reply()->sr_text, m_text);
        EXPECT_EQ(connection.sent().size(), 1U) << "exactly one result";
        return connection.sent().at(0);
    }

    vexSession* m_session = nullptr;
    char m_text[kFailureTextBytes] = "";
};

TEST_F(FailureTest, ABrokenSessionIsUnavailableAndTheAgentIsNotAsked) {
    for (const vexCode code : {6, 32}) {
        standin::forgetCalls();
        const auto sent = report(code);
        EXPECT_EQ(sent.code, LDAP_UNAVAILABLE);
        EXPECT_EQ(sent.text, "vexAuth : Failed to communicate with vexagent due to broken session handle");
        EXPECT_THAT(standin::calls(), IsEmpty()) << "code " << code;
    }
}

TEST_F(FailureTest, HealthThatCannotBeReadIsUnavailable) {
    for (const vexCode code : {6, 32, 10, 12, 36, 1}) {
        standin::answer("vexSystemHealthInfo", code);
        const auto sent = report(13);
        EXPECT_EQ(sent.code, LDAP_UNAVAILABLE) << "code " << code;
        EXPECT_EQ(sent.text, "vexAuth : Failed to retrieve last system error, due to broken session handle.")
            << "code " << code;
    }
}

TEST_F(FailureTest, AnUnhealthyAgentTurnsAWrongPasswordIntoUnavailable) {
    standin::health(12, 3, -1765328228, "no controller answers");
    const auto sent = report(14);
    EXPECT_EQ(sent.code, LDAP_UNAVAILABLE);
    const char* reason = nullptr;
    const char* system = nullptr;
    vexGetVexCodeStr(12, &reason);
    vexGetErrSystemStr(3, &system);
    EXPECT_EQ(sent.text, std::string("vexAuth :System is unhealthy(cc=12), reason:") + reason +
                             ", errSystem=" + system +
                             ", errCode=-1765328228, errString=no controller answers");
}

TEST_F(FailureTest, WrongUserAndWrongPasswordLookAlikeWhenTheAgentIsHealthy) {
    for (const vexCode code : {13, 14}) {
        standin::forgetCalls();
        const auto sent = report(code);
        EXPECT_EQ(sent.code, LDAP_INVALID_CREDENTIALS);
        EXPECT_EQ(sent.text, "vexAuth : cannot bind to server due to invalid user or password.");
        EXPECT_THAT(standin::calls(), ElementsAre("vexSystemHealthInfo(session1, 0)")) << "code " << code;
    }
}

TEST_F(FailureTest, AnAbsentErrorStringPrintsAsNoMessage) {
    standin::health(12, 1, 12, std::nullopt);
    EXPECT_THAT(report(8).text, testing::EndsWith("errString=<No Message>"));
    standin::health(0);
    standin::protocolError(1, 5, std::nullopt);
    EXPECT_THAT(report(8).text, testing::EndsWith("errString=<No Message>"));
}

struct ProtocolErrorCase {
    int system;
    int code;
    int result;
};
void PrintTo(const ProtocolErrorCase& one, std::ostream* out) {
    *out << "system " << one.system << " code " << one.code;
}
class ProtocolErrorTest : public FailureTest, public testing::WithParamInterface<ProtocolErrorCase> {};

// Only the LDAP client library's codes have an LDAP result of their own.
TEST_P(ProtocolErrorTest, MapsToAResult) {
    const ProtocolErrorCase& one = GetParam();
    standin::protocolError(one.system, one.code, "as the directory says");
    const auto sent = report(8);
    EXPECT_EQ(sent.code, one.result);
    const char* name = nullptr;
    const char* system = nullptr;
    vexGetVexCodeStr(8, &name);
    vexGetErrSystemStr(one.system, &system);
    EXPECT_EQ(sent.text, std::string("vexAuth :") + name + " (vexRC=8), errSystem=" + system +
                             ", errCode=" + std::to_string(one.code) + ", errString=as the directory says");
}

INSTANTIATE_TEST_SUITE_P(
    ErrorSystems, ProtocolErrorTest,
    testing::Values(ProtocolErrorCase{2, LDAP_SERVER_DOWN, LDAP_UNAVAILABLE},
                    ProtocolErrorCase{2, LDAP_TIMEOUT, LDAP_UNAVAILABLE},
                    ProtocolErrorCase{2, LDAP_CONNECT_ERROR, LDAP_UNAVAILABLE},
                    ProtocolErrorCase{2, LDAP_LOCAL_ERROR, LDAP_OTHER},
                    ProtocolErrorCase{2, LDAP_NO_SUCH_OBJECT, LDAP_NO_SUCH_OBJECT},
                    ProtocolErrorCase{2, 0, LDAP_OTHER},  // what has failed is no success
                    ProtocolErrorCase{2, LDAP_ADMINLIMIT_EXCEEDED, LDAP_ADMINLIMIT_EXCEEDED},
                    ProtocolErrorCase{2, LDAP_X_PROXY_AUTHZ_FAILURE, LDAP_X_PROXY_AUTHZ_FAILURE},
                    ProtocolErrorCase{2, 9, LDAP_OTHER}, ProtocolErrorCase{2, 15, LDAP_OTHER},
                    ProtocolErrorCase{2, 72, LDAP_OTHER}, ProtocolErrorCase{2, 81, LDAP_OTHER},
                    ProtocolErrorCase{2, 2592, LDAP_OTHER}, ProtocolErrorCase{2, 50331680, LDAP_OTHER},
                    ProtocolErrorCase{2, 2147483647, LDAP_OTHER},
                    ProtocolErrorCase{2, -2147483647 - 1, LDAP_OTHER},
                    ProtocolErrorCase{2, -4711, LDAP_OTHER},
                    ProtocolErrorCase{1, LDAP_SERVER_DOWN, LDAP_OTHER}, ProtocolErrorCase{3, 32, LDAP_OTHER},
                    ProtocolErrorCase{4, 32, LDAP_OTHER}));

// What RFC 4511 and its extensions call a failure.
TEST_F(FailureTest, TheCodesOfFailuresAreSentAndNoOthers) {
    const auto isFailure = [](int code) {
        const std::set<int> gaps = {9, 15, 72, 73, 74, 75, 77, 78, 79};
        return (code >= 1 && code <= 21 && !gaps.contains(code)) || (code >= 32 && code <= 36) ||
               (code >= 47 && code <= 54) || code == 60 || code == 61 ||
               (code >= 64 && code <= 80 && !gaps.contains(code)) || (code >= 113 && code <= 123) ||
               code == 4096;
    };
    for (int code = 0; code < 4200; ++code) {
        standin::protocolError(VEX_ERR_LDAP, code, "");
        EXPECT_EQ(report(8).code, isFailure(code) ? code : LDAP_OTHER) << code;
    }
}

TEST_F(FailureTest, WithoutATurnForTheQuestionWhyItIsBusy) {
    connection_pool_max = 1;
    const AgentTurn turn;
    const auto sent = report(8);
    EXPECT_EQ(sent.code, LDAP_BUSY);
    EXPECT_EQ(sent.text, "vex dirgate: too many requests wait for the agent");
}

TEST_F(FailureTest, AProtocolErrorThatCannotBeReadForABrokenSessionIsUnavailable) {
    standin::answer("vexGetLastProtocolError", 6);
    const auto sent = report(8);
    EXPECT_EQ(sent.code, LDAP_UNAVAILABLE);
    EXPECT_EQ(sent.text, "vexAuth : Failed to retrieve last protocol error, due to broken session handle");
}

TEST_F(FailureTest, AnyOtherFailureToReadTheProtocolErrorNamesTheCode) {
    for (const vexCode code : {10, 32, 12, 1}) {
        standin::answer("vexGetLastProtocolError", code);
        const auto sent = report(8);
        const char* name = nullptr;
        vexGetVexCodeStr(8, &name);
        EXPECT_EQ(sent.code, LDAP_OTHER) << "code " << code;
        EXPECT_EQ(sent.text, std::string("vexAuth : ") + name + " (vexRC=8)") << "code " << code;
    }
}

TEST_F(FailureTest, WhateverResultTheReplyHadGivesWay) {
    EXPECT_EQ(report(6, 511, LDAP_NO_SUCH_OBJECT).code, LDAP_UNAVAILABLE);
    EXPECT_EQ(report(13, 511, LDAP_NO_SUCH_OBJECT).code, LDAP_INVALID_CREDENTIALS);
}

TEST_F(FailureTest, ATextLongerThanTheBufferIsCut) {
    standin::health(12, 1, 12, std::string(2000, 'x'));
    EXPECT_EQ(report(8).text.size(), 510U);
    EXPECT_EQ(report(8, 20).text, "vexAuth :System is ");
}

TEST_F(FailureTest, ANullSessionIsReportedToo) {
    vexSessionClose(m_session);
    m_session = nullptr;
    EXPECT_EQ(report(12).text,
              "vexAuth : Failed to retrieve last system error, due to broken session handle.");
}

}  // namespace
