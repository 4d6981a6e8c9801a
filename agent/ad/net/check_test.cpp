// SPDX-License-Identifier: Apache-2.0
// What an administrator is told of a domain that is in order, and of one that is not.
#include "agent/ad/net/check.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <csignal>
#include <ctime>
#include <set>
#include <string>

#include "agent/ad/net/scripted_controller_testing.h"
#include "agent/ad/net/scripted_kdc_testing.h"

namespace vexagent {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr std::time_t kNow = 1'795'340'701;  // 2026-11-22 10:25:01
std::time_t stoppedClock() {
    return kNow;
}
std::string timeText(std::time_t time) {
    char text[32];
    std::tm parts{};
    std::strftime(text, sizeof text, "%Y%m%d%H%M%S.0Z", ::gmtime_r(&time, &parts));
    return text;
}

const std::string kSid("\x01\x04\0\0\0\0\0\x05\x15\0\0\0\x01\0\0\0\x02\0\0\0\x03\0\0\0", 24);

class CheckTest : public ::testing::Test {
  protected:
    CheckTest() {
        std::signal(SIGPIPE, SIG_IGN);  // as the agent does
        m_options.controllers.servers = {"127.0.0.1:" + std::to_string(m_controller.peer().port)};
        m_options.tlsCa = m_controller.authorityFile();
        m_options.clock = stoppedClock;
        m_controller.answer([this](Asked& asked, Talk& talk) { return answer(asked, talk); });
    }

    // A small domain. Runs in the controller's thread.
    bool answer(const Asked& asked, Talk& talk) const {
        if (asked.kind == Asked::Kind::Bind && m_refuses) {
            talk.result(LDAP_RES_BIND, asked.id, LDAP_INVALID_CREDENTIALS, "data 52e");
            return true;
        }
        if (asked.kind != Asked::Kind::Search) return false;
        if (m_missing.contains(asked.base)) {
            talk.done(asked.id, LDAP_NO_SUCH_OBJECT);
            return true;
        }
        if (m_empty)
            ;
        else if (asked.base.empty())
            talk.entry(asked.id, "",
                       {{"currentTime", {m_time}},
                        {"rootDomainNamingContext", {"DC=example,DC=com"}},
                        {"configurationNamingContext", {"CN=Configuration,DC=example,DC=com"}}});
        else if (asked.base == "DC=example,DC=com")
            talk.entry(asked.id, asked.base, {{"objectSid", {kSid}}});
        else if (asked.base == "CN=Partitions,CN=Configuration,DC=example,DC=com")
            talk.entry(asked.id, "CN=EXAMPLE," + asked.base,
                       {{"nETBIOSName", {"EXAMPLE"}}, {"nCName", {"DC=example,DC=com"}}});
        else
            talk.entry(asked.id, asked.base, {});
        talk.done(asked.id);
        return true;
    }

    bool check() {
        m_report.clear();
        return checkDomain(m_options, "CN=Zone,DC=example,DC=com", m_report);
    }
    // That something is wrong, in these words, and what is to be done about it.
    void expectWrong(const std::string& what, const std::string& action) {
        EXPECT_FALSE(check());
        EXPECT_THAT(m_report, HasSubstr("wrong: " + what));
        const std::size_t at = m_report.find("wrong: " + what);
        EXPECT_THAT(m_report.substr(m_report.find('\n', at) + 1), StartsWith("   do: " + action));
    }
    std::string controllerName() const {
        return "controller 127.0.0.1 port " + std::to_string(m_controller.peer().port);
    }

    std::string m_time = timeText(kNow);
    bool m_refuses = false;
    bool m_empty = false;  // searches find nothing
    std::set<std::string> m_missing;
    ScriptedController m_controller{ScriptedController::Tls::FromTheStart};
    vorn::test::TemporaryFolder m_folder;
    AdOptions m_options = serviceAccount(m_folder);
    std::string m_report;
};

TEST_F(CheckTest, WhatIsInOrderIsToldStepByStep) {
    EXPECT_TRUE(check());
    EXPECT_THAT(m_report, StartsWith("ok: a password for CN=gateway,DC=example,DC=com is in "));
    for (const std::string& line :
         {"ok: certificate authorities are in " + m_options.tlsCa, std::string("ok: TLS comes from "),
          std::string("ok: 1 controllers listed in ad.servers"), "ok: " + controllerName() + " answers",
          "ok: this host's clock is 0 seconds ahead of that of " + controllerName(),
          std::string("ok: the domain lets the agent in"),
          std::string("ok: domain DC=example,DC=com, short name EXAMPLE, S-1-5-21-1-2-3\n"),
          std::string("ok: zone CN=Zone,DC=example,DC=com is there\n")})
        EXPECT_THAT(m_report, HasSubstr(line));
    EXPECT_THAT(m_report, Not(HasSubstr("wrong: ")));
}

TEST_F(CheckTest, WithoutAZoneNoneIsLookedFor) {
    EXPECT_TRUE(checkDomain(m_options, "", m_report));
    EXPECT_THAT(m_report, Not(HasSubstr("zone")));
}

TEST_F(CheckTest, APasswordThatIsNotThereOrOpenToOthers) {
    ::chmod(m_options.account.bindPasswordFile.c_str(), 0644);
    expectWrong(m_options.account.bindPasswordFile, "put the service account's password into its first line");
    m_options.account.bindPasswordFile = m_folder.file("none");
    expectWrong("no password is in " + m_options.account.bindPasswordFile,
                "put the service account's password");
}

TEST_F(CheckTest, AuthoritiesThatCannotBeRead) {
    m_options.tlsCa = "/nowhere/ca.pem";
    expectWrong("no certificate authorities can be read from /nowhere/ca.pem", kHowToGetAuthority);
}

TEST_F(CheckTest, AControllerThatDoesNotAnswer) {
    m_options.controllers.servers.insert(m_options.controllers.servers.begin(), "127.0.0.1:1");
    expectWrong("controller 127.0.0.1 port 1 does not answer: ", "see that it runs");
    EXPECT_THAT(m_report, HasSubstr("ok: 2 controllers listed")) << "and the others are looked at";
    EXPECT_THAT(m_report, HasSubstr("ok: the domain lets the agent in"));
    m_options.controllers.servers = {"127.0.0.1:1"};
    EXPECT_FALSE(check());
    EXPECT_THAT(m_report, Not(HasSubstr("lets the agent in")));
}

TEST_F(CheckTest, AClockThatIsMoreThanFiveMinutesOff) {
    for (const auto& [time, text] :
         {std::pair(kNow + 300, "ok: this host's clock is 300 seconds behind"),
          std::pair(kNow - 300, "ok: this host's clock is 300 seconds ahead of")}) {
        m_time = timeText(time);
        EXPECT_TRUE(check());
        EXPECT_THAT(m_report, HasSubstr(text));
    }
    m_time = timeText(kNow + 301);
    expectWrong("this host's clock is 301 seconds behind that of " + controllerName(),
                "let this host take its time");
    m_time = timeText(kNow - 301);
    expectWrong("this host's clock is 301 seconds ahead of that of " + controllerName(), "let this host");
}

TEST_F(CheckTest, WhatTellsNoTimeMayBeNoController) {
    m_time = "noon";
    expectWrong(controllerName() + " does not tell the time", "see whether it is a domain controller");
}

TEST_F(CheckTest, ADomainThatDoesNotLetTheAgentIn) {
    m_refuses = true;
    expectWrong("the domain does not let the agent in: ", "check ad.bind.name and its password");
    EXPECT_THAT(m_report, Not(HasSubstr("short name"))) << "nothing more is asked";
}

TEST_F(CheckTest, ControllersOfAnotherDomain) {
    m_missing = {"DC=example,DC=com"};
    expectWrong("the controllers do not hold DC=example,DC=com", "compare domain.name");
}

TEST_F(CheckTest, AZoneThatIsNotThere) {
    m_missing = {"CN=Zone,DC=example,DC=com"};
    expectWrong("zone CN=Zone,DC=example,DC=com cannot be read: No such object",
                "set zone.dn to the DN of the zone");
}

TEST_F(CheckTest, IdsFromSidsBeginSomewhereOrNowhere) {
    m_options.ids.fromSid = true;
    m_options.ids.slices = 1;
    EXPECT_TRUE(check());
    EXPECT_THAT(m_report, HasSubstr("ok: ids made from SIDs begin at 200000\n"));
    m_options.ids.first = 0xFFFF'FFFF;
    expectWrong("no ids can be made: the domain's slice lies beyond the largest id", "lower ad.ids.first");
}

TEST_F(CheckTest, AKeytabHoldsTheMachinesName) {
    m_options.transport = Transport::Gssapi;
    m_options.controllers.servers = {"127.0.0.1:1"};
    m_options.account.keytab = m_folder.file("web.keytab");
    ScriptedKdc::writeKey("host/web@EXAMPLE.COM", m_options.account.keytab, "key");
    expectWrong("keytab " + m_options.account.keytab + " holds no name of the form HOST$@EXAMPLE.COM",
                "compare domain.name with the output of klist -k, or set ad.principal");
    ScriptedKdc::writeKey("WEB$@EXAMPLE.COM", m_options.account.keytab, "key");
    EXPECT_FALSE(check());
    EXPECT_THAT(m_report, StartsWith("ok: keytab " + m_options.account.keytab + " holds WEB$@EXAMPLE.COM\n"));
    EXPECT_THAT(m_report, Not(HasSubstr("a password for")));
}

TEST_F(CheckTest, ADomainWithoutControllers) {
    m_options.controllers.servers = {"not a host"};
    m_options.domain = "";
    expectWrong("no controllers of  are found: ", "let /etc/resolv.conf name the domain's DNS servers");
    EXPECT_THAT(m_report, Not(HasSubstr("does not answer")));
}

TEST_F(CheckTest, IdsThatAreNotMadeBeginNowhere) {
    EXPECT_TRUE(check());
    EXPECT_THAT(m_report, Not(HasSubstr("ids made")));
}

TEST_F(CheckTest, OneThatSaysNothingOfTheTime) {
    m_empty = true;
    expectWrong(controllerName() + " does not tell the time", "see whether it is a domain controller");
}

TEST_F(CheckTest, AKeytabThatIsNotThere) {
    m_options.transport = Transport::Gssapi;
    m_options.account.keytab = m_folder.file("none.keytab");
    m_options.controllers.servers = {"127.0.0.1:1"};
    EXPECT_FALSE(check());
    EXPECT_THAT(m_report, StartsWith("wrong: "));
    EXPECT_THAT(m_report, HasSubstr("none.keytab"));
    EXPECT_THAT(m_report, HasSubstr("   do: join the domain (adcli join, or realm join)"));
}

}  // namespace
}  // namespace vexagent
