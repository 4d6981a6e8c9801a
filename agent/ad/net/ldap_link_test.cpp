// SPDX-License-Identifier: Apache-2.0
// A link, its searches and their pages.

#include <gmock/gmock.h>

#include <thread>

#include "agent/ad/net/ldap_link_testing.h"

namespace vexagent::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using namespace std::string_literals;

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
    const ScriptedController other;
    const std::string elsewhere = "ldap://127.0.0.1:" + std::to_string(other.peer().port) + "/";
    ScriptedController controller;
    onSearch(controller, [elsewhere](const Asked& asked, Talk& talk) {
        talk.reference(asked.id, elsewhere + "DC=x");
        talk.entry(asked.id, dnOf(1), {});
        talk.reference(asked.id, elsewhere + "DC=y");
        talk.done(asked.id);
    });
    EXPECT_THAT(found(*plain(controller), m_everybody), ElementsAre(dnOf(1)));
    EXPECT_TRUE(m_status.ok());
    EXPECT_THAT(other.asked(), IsEmpty());
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

TEST_F(LinkTest, NobodyAtAPortIsToldWithItsNameAndPort) {
    const auto link = m_connector.openAnonymous({"127.0.0.1", 1}, within(kPlenty));
    ASSERT_FALSE(link);
    EXPECT_TRUE(link.error().lost);
    EXPECT_THAT(link.error().text, HasSubstr("127.0.0.1 port 1"));
}

}  // namespace
}  // namespace vexagent::test
