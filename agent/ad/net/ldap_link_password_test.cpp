// SPDX-License-Identifier: Apache-2.0
// Whose password a link shows, and to whom: others' and the agent's own, which goes under TLS only.

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "agent/ad/net/ldap_link_testing.h"
#include "agent/directory/log_testing.h"

namespace vexagent::test {
namespace {

using testing::HasSubstr;
using namespace std::string_literals;

// --------------------------------------------------------------------- passwords

TEST_F(LinkTest, APasswordIsAcceptedWhenTheControllerSaysSo) {
    ScriptedController controller;
    EXPECT_TRUE(plain(controller)->checkPassword("CN=Ann,DC=x", "welcome", within(kPlenty)));
    const Asked asked = controller.asked().at(0);
    EXPECT_EQ(asked.name, "CN=Ann,DC=x");
    EXPECT_EQ(asked.password, "welcome");
    EXPECT_EQ(controller.count(Asked::Kind::Bind), 1u);
}

TEST_F(LinkTest, NoOtherAnswerAcceptsAPassword) {
    const std::vector<std::pair<const char*, Say>> answers = {
        {"wrong", [](const Asked& asked,
                     Talk& talk) { talk.result(LDAP_RES_BIND, asked.id, LDAP_INVALID_CREDENTIALS); }},
        {"a search's end",
         [](const Asked& asked, Talk& talk) { talk.result(LDAP_RES_SEARCH_RESULT, asked.id, LDAP_SUCCESS); }},
        {"an entry", [](const Asked& asked, Talk& talk) { talk.entry(asked.id, "", {}); }},
        {"another's",
         [](const Asked& asked, Talk& talk) { talk.result(LDAP_RES_BIND, asked.id + 1, LDAP_SUCCESS); }},
        {"half a SASL bind",
         [](const Asked& asked, Talk& talk) {
             talk.result(LDAP_RES_BIND, asked.id, LDAP_SASL_BIND_IN_PROGRESS);
         }},
        {"a referral",
         [](const Asked& asked, Talk& talk) { talk.result(LDAP_RES_BIND, asked.id, LDAP_REFERRAL); }},
        {"garbage", [](const Asked&, Talk& talk) { talk.bytes("\x30\x03\x02\x01"); }},
        {"nothing", [](const Asked&, Talk&) {}},
    };
    for (const auto& [what, say] : answers) {
        ScriptedController controller;
        controller.answer([say = say](Asked& asked, Talk& talk) {
            say(asked, talk);
            return true;
        });
        EXPECT_FALSE(plain(controller)->checkPassword("CN=Ann,DC=x", "welcome", within(kShort))) << what;
    }
}

TEST_F(LinkTest, AnEmptyPasswordOrNameIsShownToNobody) {
    ScriptedController controller;
    const auto link = plain(controller);
    EXPECT_FALSE(link->checkPassword("CN=Ann,DC=x", "", within(kPlenty)));
    EXPECT_FALSE(link->checkPassword("", "welcome", within(kPlenty)));
    EXPECT_FALSE(link->checkPassword("CN=Ann,DC=x", "welcome\0junk"s, within(kPlenty)));
    EXPECT_EQ(controller.count(Asked::Kind::Bind), 0u);
}

// ----------------------------------------------------------------- new passwords

TEST_F(LinkTest, APasswordIsChangedWhenTheControllerSaysSo) {
    ScriptedController controller;
    controller.answer([](Asked& asked, Talk& talk) {
        if (asked.kind == Asked::Kind::Other) talk.result(LDAP_RES_MODIFY, asked.id, LDAP_SUCCESS);
        return asked.kind == Asked::Kind::Other;
    });
    const vorn::Secret from("a"), to("b");
    EXPECT_TRUE(plain(controller)->changePassword("CN=Ann,DC=x", from, to, within(kPlenty)));
    EXPECT_EQ(controller.count(Asked::Kind::Other), 1u);
}

TEST_F(LinkTest, NoOtherAnswerChangesAPassword) {
    const std::vector<std::pair<const char*, Say>> answers = {
        {"a rule", [](const Asked& asked,
                      Talk& talk) { talk.result(LDAP_RES_MODIFY, asked.id, LDAP_CONSTRAINT_VIOLATION); }},
        {"a bind's",
         [](const Asked& asked, Talk& talk) { talk.result(LDAP_RES_BIND, asked.id, LDAP_SUCCESS); }},
        {"garbage", [](const Asked&, Talk& talk) { talk.bytes("\x30\x03\x02\x01"); }},
        {"nothing", [](const Asked&, Talk&) {}},
    };
    const vorn::Secret from("a"), to("b");
    for (const auto& [what, say] : answers) {
        ScriptedController controller;
        controller.answer([say = say](Asked& asked, Talk& talk) {
            say(asked, talk);
            return true;
        });
        EXPECT_FALSE(plain(controller)->changePassword("CN=Ann,DC=x", from, to, within(kShort))) << what;
    }
}

// --------------------------------------------------------------- the agent itself

TEST_F(LinkTest, TheServicePasswordIsShownUnderTlsOnly) {
    ScriptedController byRequest;
    EXPECT_EQ(open(byRequest, Transport::StartTls).text, "");
    ScriptedController fromTheStart(ScriptedController::Tls::FromTheStart);
    m_options.tlsCa.clear();
    EXPECT_EQ(open(fromTheStart, Transport::Ldaps).text, "");
    for (const ScriptedController* controller : {&byRequest, &fromTheStart}) {
        ASSERT_EQ(controller->count(Asked::Kind::Bind), 1u);
        for (const Asked& asked : controller->asked()) {
            EXPECT_EQ(asked.tls, asked.kind != Asked::Kind::StartTls);
            if (asked.kind != Asked::Kind::Bind) continue;
            EXPECT_EQ(asked.name, "CN=gateway,DC=example,DC=com");
            EXPECT_EQ(asked.password, "secret");
        }
    }
}

TEST_F(LinkTest, WhoeverRefusesTlsIsShownNothing) {
    ScriptedController controller;
    controller.answer([](Asked& asked, Talk& talk) {
        if (asked.kind != Asked::Kind::StartTls) return false;
        talk.result(LDAP_RES_EXTENDED, asked.id, LDAP_PROTOCOL_ERROR);
        return true;
    });
    const Ended status = open(controller, Transport::StartTls);
    EXPECT_TRUE(status.lost) << status.text;
    EXPECT_THAT(status.text, HasSubstr("Protocol error"));
    EXPECT_EQ(controller.count(Asked::Kind::Bind), 0u);
    EXPECT_EQ(m_link, nullptr);
}

TEST_F(LinkTest, AControllerOfAnotherAuthorityIsShownNothing) {
    ScriptedController controller;
    m_options.tlsCa = "/etc/ssl/certs/ca-certificates.crt";
    const Ended status = open(controller, Transport::StartTls);
    EXPECT_TRUE(status.lost) << status.text;
    EXPECT_EQ(controller.count(Asked::Kind::Bind), 0u);
}

TEST_F(LinkTest, OneThatSpeaksOldTlsOnlyIsShownNothing) {
    ScriptedController controller(ScriptedController::Tls::FromTheStart, "NORMAL:-VERS-ALL:+VERS-TLS1.1");
    const Ended status = open(controller, Transport::Ldaps);
    EXPECT_TRUE(status.lost) << status.text;
    EXPECT_EQ(controller.count(Asked::Kind::Bind), 0u);
}

TEST_F(LinkTest, AnAuthorityThatCannotBeReadIsNamed) {
    ScriptedController controller;
    m_options.tlsCa = "/nowhere/ca.pem";
    const Ended status = open(controller, Transport::StartTls);
    EXPECT_FALSE(status.ok());
    EXPECT_THAT(status.text, HasSubstr("/nowhere/ca.pem"));
}

TEST_F(LinkTest, AHandshakeThatNeverEndsIsEndedAtItsDeadline) {
    ScriptedController controller(ScriptedController::Tls::Silent);
    const Ended status = open(controller, Transport::Ldaps, kShort);
    EXPECT_TRUE(status.lost) << status.text;
    EXPECT_EQ(m_link, nullptr);
}

TEST_F(LinkTest, ARefusedServicePasswordIsNotShownAgainAtOnce) {
    ScriptedController controller;
    controller.answer([](Asked& asked, Talk& talk) {
        if (asked.kind != Asked::Kind::Bind) return false;
        talk.result(LDAP_RES_BIND, asked.id, LDAP_INVALID_CREDENTIALS, "80090308: data 52e");
        return true;
    });
    const CapturedLog log;
    const Ended first = open(controller, Transport::StartTls);
    EXPECT_THAT(log.text(), HasSubstr("the domain refuses "));
    EXPECT_TRUE(first.lost);
    EXPECT_TRUE(first.barred);
    EXPECT_THAT(first.text, HasSubstr("data 52e"));
    EXPECT_NE(first.code, LDAP_INVALID_CREDENTIALS) << "nobody's password but the agent's own was wrong";
    const Ended second = open(controller, Transport::StartTls);
    EXPECT_TRUE(second.barred);
    EXPECT_THAT(second.text, HasSubstr("ad.bind.name"));
    EXPECT_EQ(controller.count(Asked::Kind::Bind), 1u);
    EXPECT_EQ(controller.count(Asked::Kind::StartTls), 1u) << "there is not even a connection";
}

TEST_F(LinkTest, AnotherPasswordInTheFileIsTriedAtOnce) {
    ScriptedController controller;
    controller.answer([](Asked& asked, Talk& talk) {
        if (asked.kind != Asked::Kind::Bind || asked.password == "better") return false;
        talk.result(LDAP_RES_BIND, asked.id, LDAP_INVALID_CREDENTIALS);
        return true;
    });
    EXPECT_FALSE(open(controller, Transport::StartTls).ok());
    m_folder.write("password", "better\n");
    const CapturedLog log;
    EXPECT_TRUE(open(controller, Transport::StartTls).ok());
    EXPECT_EQ(log.text(), "") << "another password is nobody's return";
}

TEST_F(LinkTest, APasswordFileThatIsNotThereOrOpenToOthersIsToldByItsName) {
    ScriptedController controller;
    ::chmod(m_options.account.bindPasswordFile.c_str(), 0644);
    Ended status = open(controller, Transport::StartTls);
    EXPECT_THAT(status.text, HasSubstr("ad.bind.password.file"));
    m_options.account.bindPasswordFile += ".not";
    status = open(controller, Transport::StartTls);
    EXPECT_THAT(status.text, HasSubstr("ad.bind.password.file"));
    EXPECT_EQ(controller.count(Asked::Kind::Bind), 0u);
}

}  // namespace
}  // namespace vexagent::test
