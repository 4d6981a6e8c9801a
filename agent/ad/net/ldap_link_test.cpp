// SPDX-License-Identifier: Apache-2.0
// A link and its results, against a controller that does what a test says.
#include "agent/ad/net/ldap_connector.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "agent/ad/net/results.h"
#include "agent/ad/net/scripted_controller_testing.h"

namespace vexagent {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using namespace std::string_literals;

constexpr milliseconds kPlenty{20'000};
constexpr milliseconds kShort{150};

std::string dnOf(int number) {
    return "CN=" + std::to_string(number) + ",DC=example,DC=com";
}

// How something ended, by a failure's own words; a success has none.
struct Ended {
    int code = LDAP_SUCCESS;
    std::string text{};
    bool lost = false;
    bool again = false;
    bool barred = false;
    bool ok() const { return code == LDAP_SUCCESS; }
};
template <class T>
Ended ended(const Linked<T>& answer) {
    if (answer) return {};
    const LinkFailure& failure = answer.error();
    return {failure.code, failure.text, failure.lost, failure.again, failure.barred};
}

Deadline within(milliseconds time) {
    return {vorn::systemSteadyClock(), time};
}

Moment now() {
    return vorn::systemSteadyClock().now();
}

class LinkTest : public ::testing::Test {
  protected:
    LinkTest() {
        std::signal(SIGPIPE, SIG_IGN);  // as the agent does: libldap writes when it parts
        m_options.domain = "example.com";
        m_options.bindName = "CN=gateway,DC=example,DC=com";
        m_options.bindPasswordFile = m_folder.write("password", "secret\n");
        ::chmod(m_options.bindPasswordFile.c_str(), 0600);
        m_options.timeout = kPlenty;
    }

    // One on which nobody has introduced himself, without TLS.
    std::unique_ptr<Link> plain(const ScriptedController& controller) {
        auto link = m_connector.openAnonymous(controller.peer(), within(kPlenty));
        EXPECT_TRUE(link) << link.error().text;
        return std::move(*link);
    }

    Ended open(const ScriptedController& controller, Transport transport, milliseconds time = kPlenty) {
        m_options.transport = transport;
        if (m_options.tlsCa.empty()) m_options.tlsCa = controller.authorityFile();
        auto link = m_connector.open("example.com", controller.peer(), within(time));
        const Ended end = ended(link);
        if (link) m_link = std::move(*link);
        return end;
    }

    Ended search(Link& link, const LdapSearch& search, const Deadline& deadline,
                 const LinkReader::Visitor& visit) {
        return ended(LinkReader(link, m_pages, deadline).search(search, visit));
    }
    Ended searchAll(Link& link, const std::vector<LdapSearch>& searches, const LinkReader::Visitor& visit) {
        return ended(LinkReader(link, m_pages, within(kPlenty)).searchAll(searches, visit));
    }

    // The DNs that a search finds.
    std::vector<std::string> found(Link& link, const LdapSearch& what, milliseconds time = kPlenty) {
        std::vector<std::string> dns;
        m_status = search(link, what, within(time), [&](Entry&& entry) { dns.push_back(entry.dn); });
        return dns;
    }

    // What the controller says to a search from now on.
    using Say = std::function<void(const Asked&, Talk&)>;
    static void onSearch(ScriptedController& controller, Say say) {
        controller.answer([say = std::move(say)](Asked& asked, Talk& talk) {
            if (asked.kind != Asked::Kind::Search) return false;
            say(asked, talk);
            return true;
        });
    }

    vorn::test::TemporaryFolder m_folder;
    AdOptions m_options;
    Watchdog m_watchdog{vorn::systemSteadyClock()};
    PageRule m_pages{vorn::systemSteadyClock()};
    LdapConnector m_connector{m_options, m_watchdog, vorn::systemSteadyClock(), nullptr};
    std::unique_ptr<Link> m_link;
    Ended m_status;
    const LdapSearch m_everybody{"DC=example,DC=com"};
};

// ---------------------------------------------------------------------- searches

TEST_F(LinkTest, ASearchAsksAsItIsToldAndForNoReferrals) {
    ScriptedController controller;
    found(*plain(controller),
          {"DC=example,DC=com", LDAP_SCOPE_ONELEVEL, "(&(uid=ann)(cn=*))", {"uid", "cn"}});
    const Asked asked = controller.asked().at(0);
    EXPECT_EQ(asked.base, "DC=example,DC=com");
    EXPECT_EQ(asked.scope, LDAP_SCOPE_ONELEVEL);
    EXPECT_EQ(asked.filter, "(&(uid=ann)(cn=*))");
    EXPECT_THAT(asked.attributes, ElementsAre("uid", "cn"));
    EXPECT_TRUE(asked.domainScope);
    EXPECT_EQ(asked.pageSize, 0);
    EXPECT_EQ(asked.name, "") << "nobody was introduced";
}

TEST_F(LinkTest, EntriesComeWithAllTheirValuesByteForByte) {
    ScriptedController controller;
    onSearch(controller, [](const Asked& asked, Talk& talk) {
        talk.entry(asked.id, "CN=Ann,DC=x",
                   {{"objectGUID", {"\0\1\xFF"s}}, {"member", {"a", "", "b"}}, {"empty", {}}});
        talk.done(asked.id);
    });
    std::vector<Entry> entries;
    const auto link = plain(controller);
    const Ended status = search(*link, m_everybody, within(kPlenty),
                                [&](Entry&& entry) { entries.push_back(std::move(entry)); });
    ASSERT_TRUE(status.ok()) << status.text;
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].dn, "CN=Ann,DC=x");
    ASSERT_NE(entries[0].find("MEMBER"), nullptr);
    EXPECT_THAT(entries[0].find("member")->values, ElementsAre("a", "", "b"));
    EXPECT_EQ(entries[0].first("objectGUID"), "\0\1\xFF"s);
    EXPECT_EQ(entries[0].first("empty"), "");
    EXPECT_EQ(entries[0].find("other"), nullptr);
}

TEST_F(LinkTest, ReferencesArePassedOver) {
    ScriptedController controller;
    onSearch(controller, [](const Asked& asked, Talk& talk) {
        talk.reference(asked.id, "ldap://elsewhere/DC=x");
        talk.entry(asked.id, dnOf(1), {});
        talk.reference(asked.id, "ldap://elsewhere/DC=y");
        talk.done(asked.id);
    });
    EXPECT_THAT(found(*plain(controller), m_everybody), ElementsAre(dnOf(1)));
    EXPECT_TRUE(m_status.ok());
}

TEST_F(LinkTest, ABaseThatIsNotThereIsTheControllersOwnAnswer) {
    ScriptedController controller;
    onSearch(controller,
             [](const Asked& asked, Talk& talk) { talk.done(asked.id, LDAP_NO_SUCH_OBJECT, "gone"); });
    const auto link = plain(controller);
    EXPECT_THAT(found(*link, m_everybody), IsEmpty());
    EXPECT_EQ(m_status.code, LDAP_NO_SUCH_OBJECT);
    EXPECT_THAT(m_status.text, HasSubstr("gone"));
    EXPECT_FALSE(m_status.lost);
    EXPECT_TRUE(isMissing(LdapFailure(m_status.code, m_status.text)));
    EXPECT_TRUE(link->looksUsable()) << "nothing is wrong with the connection";
}

TEST_F(LinkTest, AControllerThatIsBusyOrUnavailableIsLost) {
    for (const int code : {LDAP_BUSY, LDAP_UNAVAILABLE}) {
        ScriptedController controller;
        onSearch(controller, [code](const Asked& asked, Talk& talk) { talk.done(asked.id, code); });
        const auto link = plain(controller);
        found(*link, m_everybody);
        EXPECT_EQ(m_status.code, code);
        EXPECT_TRUE(m_status.lost) << code;
        EXPECT_FALSE(link->looksUsable());
    }
}

TEST_F(LinkTest, ARefusalIsNoLoss) {
    ScriptedController controller;
    onSearch(controller,
             [](const Asked& asked, Talk& talk) { talk.done(asked.id, LDAP_INSUFFICIENT_ACCESS); });
    found(*plain(controller), m_everybody);
    EXPECT_EQ(m_status.code, LDAP_INSUFFICIENT_ACCESS);
    EXPECT_FALSE(m_status.lost);
}

TEST_F(LinkTest, OneThatClosesInTheMiddleIsLost) {
    ScriptedController controller;
    onSearch(controller, [](const Asked& asked, Talk& talk) {
        talk.entry(asked.id, dnOf(1), {});
        talk.bytes("\x30\x84\x00\x00\x10\x00"s);  // the head of a message that does not come
        talk.result(LDAP_RES_EXTENDED, 0, LDAP_UNAVAILABLE);
    });
    ScriptedController closing;
    onSearch(closing, [&closing](const Asked& asked, Talk& talk) {
        talk.entry(asked.id, dnOf(1), {});
        talk.bytes("\x42"s);
        closing.hang(talk);
    });
    found(*plain(controller), m_everybody, kShort);
    EXPECT_TRUE(m_status.lost);
    EXPECT_THAT(found(*plain(closing), m_everybody, kShort), ElementsAre(dnOf(1)));
    EXPECT_TRUE(m_status.lost);
}

TEST_F(LinkTest, OneThatSendsGarbageIsLost) {
    ScriptedController controller;
    onSearch(controller, [](const Asked&, Talk& talk) { talk.bytes("HTTP/1.1 400 Bad Request\r\n\r\n"); });
    found(*plain(controller), m_everybody, kShort);
    EXPECT_FALSE(m_status.ok());
    EXPECT_TRUE(m_status.lost);
}

TEST_F(LinkTest, OneThatHangsIsLostAtTheDeadline) {
    ScriptedController controller;
    onSearch(controller, [&controller](const Asked&, Talk& talk) { controller.hang(talk); });
    const auto link = plain(controller);
    const Deadline deadline = within(kShort);
    m_status = search(*link, m_everybody, deadline, [](Entry&&) {});
    EXPECT_TRUE(deadline.passed());
    EXPECT_EQ(m_status.code, LDAP_TIMEOUT);
    EXPECT_THAT(m_status.text, HasSubstr("no answer in time"));
    EXPECT_TRUE(m_status.lost);
    EXPECT_FALSE(link->looksUsable());
}

TEST_F(LinkTest, OneThatIsLateIsLookedAtAndGivenUpWhenItIsNotThere) {
    ScriptedController controller;
    onSearch(controller, [&controller](const Asked&, Talk& talk) { controller.hang(talk); });
    const auto link = plain(controller);
    int looks = 0;
    link->setPatience([&](const Deadline&) { return ++looks < 3; });
    found(*link, m_everybody, milliseconds(400));
    EXPECT_EQ(looks, 3);
    EXPECT_EQ(m_status.code, LDAP_UNAVAILABLE);
    EXPECT_THAT(m_status.text, HasSubstr("the controller hangs"));
    EXPECT_TRUE(m_status.lost);
}

TEST_F(LinkTest, WhenTheControllerAnsweredIsKnown) {
    ScriptedController controller;
    const auto link = plain(controller);
    const Moment before = now();
    EXPECT_LT(link->answeredAt(), before);
    EXPECT_TRUE(LinkReader(*link, m_pages, within(kPlenty)).probe());
    EXPECT_GE(link->answeredAt(), before);
}

TEST_F(LinkTest, APeerThatTalksUnaskedOrHasGoneMakesItUnusable) {
    ScriptedController controller;
    onSearch(controller, [](const Asked& asked, Talk& talk) {
        talk.done(asked.id);
        talk.done(asked.id + 100);
    });
    const auto link = plain(controller);
    EXPECT_TRUE(link->looksUsable());
    found(*link, m_everybody);
    EXPECT_TRUE(m_status.ok());
    const Deadline deadline = within(kPlenty);  // for it to come
    while (link->looksUsable() && !deadline.passed()) std::this_thread::yield();
    EXPECT_FALSE(link->looksUsable());
}

// ------------------------------------------------------------------------- pages

// A controller that holds so many entries, sends no more than most at once and pages of
// what is asked for.
void holdEntries(ScriptedController& controller, int total, int most) {
    controller.answer([=](Asked& asked, Talk& talk) {
        if (asked.kind != Asked::Kind::Search) return false;
        const int from = asked.cookie.empty() ? 0 : std::stoi(asked.cookie);
        const int size = asked.pageSize > 0 ? std::min(asked.pageSize, most) : most;
        const int to = std::min(total, from + size);
        for (int i = from; i < to; ++i) talk.entry(asked.id, dnOf(i), {});
        if (asked.pageSize > 0)
            talk.page(asked.id, to < total ? std::to_string(to) : "");
        else
            talk.done(asked.id, to < total ? LDAP_SIZELIMIT_EXCEEDED : LDAP_SUCCESS);
        return true;
    });
}

TEST_F(LinkTest, AResultThatIsCutIsReadAnewByPagesAndEveryEntryComesOnce) {
    ScriptedController controller;
    holdEntries(controller, 25, 10);
    const auto link = plain(controller);
    const std::vector<std::string> dns = found(*link, m_everybody);
    ASSERT_TRUE(m_status.ok()) << m_status.text;
    std::vector<std::string> all;
    for (int i = 0; i < 25; ++i) all.push_back(dnOf(i));
    EXPECT_EQ(dns, all);
    std::vector<std::string> cookies;
    std::vector<int> sizes;
    for (const Asked& asked : controller.asked()) {
        cookies.push_back(asked.cookie);
        sizes.push_back(asked.pageSize);
    }
    EXPECT_THAT(cookies, ElementsAre("", "", "10", "20"));
    EXPECT_THAT(sizes, ElementsAre(0, Link::kPageSize, Link::kPageSize, Link::kPageSize));
}

TEST_F(LinkTest, OneThatHasCutAResultIsAskedForPagesAtOnce) {
    ScriptedController controller;
    holdEntries(controller, 25, 10);
    const auto link = plain(controller);
    found(*link, m_everybody);
    const std::size_t before = controller.asked().size();
    EXPECT_EQ(found(*link, m_everybody).size(), 25u);
    const std::vector<Asked> asked = controller.asked();
    EXPECT_EQ(asked.at(before).pageSize, Link::kPageSize);
    EXPECT_EQ(asked.size(), before + 3);
}

TEST_F(LinkTest, WhatFindsFewAndTheBaseAloneAreNeverAskedForByPages) {
    ScriptedController controller;
    m_pages.holdForEver();
    const auto link = plain(controller);
    LdapSearch few = m_everybody;
    few.extent = Extent::Few;
    found(*link, few);
    LdapSearch base = m_everybody;
    base.scope = LDAP_SCOPE_BASE;
    found(*link, base);
    found(*link, m_everybody);
    const std::vector<Asked> asked = controller.asked();
    EXPECT_EQ(asked.at(0).pageSize, 0);
    EXPECT_EQ(asked.at(1).pageSize, 0);
    EXPECT_EQ(asked.at(2).pageSize, Link::kPageSize);
}

TEST_F(LinkTest, EverybodysAttributesAreAskedForByPagesAtOnce) {
    ScriptedController controller;
    const auto link = plain(controller);
    LdapSearch many = m_everybody;
    many.extent = Extent::Many;
    found(*link, many);
    many.attributes = {"uid", "*"};
    found(*link, many);
    many.attributes = {"uid"};
    found(*link, many);
    const std::vector<Asked> asked = controller.asked();
    EXPECT_EQ(asked.at(0).pageSize, Link::kPageSize);
    EXPECT_EQ(asked.at(1).pageSize, Link::kPageSize);
    EXPECT_EQ(asked.at(2).pageSize, 0) << "a few of everybody's";
}

TEST_F(LinkTest, ALargeResultThatIsCollectedForAQuarterOfTheTimeIsAskedForAgainByPages) {
    ScriptedController controller;
    onSearch(controller, [&controller](const Asked&, Talk& talk) { controller.hang(talk); });
    LdapSearch many = m_everybody;
    many.extent = Extent::Many;
    many.attributes = {"uid"};
    const Deadline deadline = within(milliseconds(2000));
    m_status = search(*plain(controller), many, deadline, [](Entry&&) {});
    EXPECT_TRUE(m_status.lost);
    EXPECT_TRUE(m_status.again);
    EXPECT_FALSE(deadline.passed());
    EXPECT_TRUE(m_pages.holds());
}

// --------------------------------------------------------------- several searches

TEST_F(LinkTest, SeveralSearchesAreUnderWayTogether) {
    std::vector<LdapSearch> searches;
    for (int i = 0; i < 20; ++i) searches.push_back({dnOf(i)});
    int held = 0;
    std::vector<Asked> waiting;
    ScriptedController controller;  // ends before what its thread works with
    onSearch(controller, [&](const Asked& asked, Talk& talk) {
        waiting.push_back(asked);
        if (++held < 8) return;  // answers nobody before the eighth has come
        for (const Asked& one : waiting) {
            talk.entry(one.id, one.base, {});
            talk.done(one.id);
        }
        waiting.clear();
    });
    std::vector<std::string> dns;
    const auto link = plain(controller);
    m_status = searchAll(*link, searches, [&](Entry&& entry) { dns.push_back(entry.dn); });
    ASSERT_TRUE(m_status.ok()) << m_status.text;
    EXPECT_EQ(dns.size(), 20u);
}

TEST_F(LinkTest, AmongSeveralABaseThatIsNotThereFindsNothing) {
    ScriptedController controller;
    onSearch(controller, [](const Asked& asked, Talk& talk) {
        if (asked.base == dnOf(1)) return talk.done(asked.id, LDAP_NO_SUCH_OBJECT);
        talk.entry(asked.id, asked.base, {});
        talk.done(asked.id);
    });
    std::vector<std::string> dns;
    const auto link = plain(controller);
    m_status =
        searchAll(*link, {{dnOf(0)}, {dnOf(1)}, {dnOf(2)}}, [&](Entry&& entry) { dns.push_back(entry.dn); });
    EXPECT_TRUE(m_status.ok());
    EXPECT_THAT(dns, ElementsAre(dnOf(0), dnOf(2)));
    EXPECT_TRUE(link->looksUsable());
}

TEST_F(LinkTest, AmongSeveralAFailureIsTheEndOfAllAndOfTheConnection) {
    ScriptedController controller;
    onSearch(controller, [](const Asked& asked, Talk& talk) {
        talk.done(asked.id, asked.base == dnOf(1) ? LDAP_INSUFFICIENT_ACCESS : LDAP_SUCCESS);
    });
    const auto link = plain(controller);
    m_status = searchAll(*link, {{dnOf(0)}, {dnOf(1)}, {dnOf(2)}}, [](Entry&&) {});
    EXPECT_EQ(m_status.code, LDAP_INSUFFICIENT_ACCESS);
    EXPECT_FALSE(link->looksUsable()) << "answers to the others may still be on their way";
}

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
    const Ended first = open(controller, Transport::StartTls);
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
    EXPECT_TRUE(open(controller, Transport::StartTls).ok());
}

TEST_F(LinkTest, APasswordFileThatIsNotThereOrOpenToOthersIsToldByItsName) {
    ScriptedController controller;
    ::chmod(m_options.bindPasswordFile.c_str(), 0644);
    Ended status = open(controller, Transport::StartTls);
    EXPECT_THAT(status.text, HasSubstr("ad.bind.password.file"));
    m_options.bindPasswordFile += ".not";
    status = open(controller, Transport::StartTls);
    EXPECT_THAT(status.text, HasSubstr("ad.bind.password.file"));
    EXPECT_EQ(controller.count(Asked::Kind::Bind), 0u);
}

TEST_F(LinkTest, NobodyAtAPortIsToldWithItsNameAndPort) {
    const auto link = m_connector.openAnonymous({"127.0.0.1", 1}, within(kPlenty));
    ASSERT_FALSE(link);
    EXPECT_TRUE(link.error().lost);
    EXPECT_THAT(link.error().text, HasSubstr("127.0.0.1 port 1"));
}

}  // namespace
}  // namespace vexagent
