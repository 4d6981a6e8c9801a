// SPDX-License-Identifier: Apache-2.0
// Whole results, results by pages, and when which are asked for.

#include "agent/ad/net/results.h"

#include <gmock/gmock.h>

#include "agent/ad/net/link_testing.h"
#include "agent/ad/net/ranges.h"

namespace vexagent {
namespace {

using std::chrono::minutes;
using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::string dnOf(std::size_t number) {
    return "CN=" + std::to_string(number) + ",DC=x";
}

class ResultsTest : public ::testing::Test {
  protected:
    ResultsTest() {
        controller().answer = [this](const LdapSearch&) -> Linked<std::vector<Entry>> {
            std::vector<Entry> entries;
            for (std::size_t i = 0; i < m_total; ++i) entries.push_back(entryOf(dnOf(i)));
            return entries;
        };
    }
    FakeController& controller() { return m_connector.controllers["dc1"]; }
    std::unique_ptr<Link> open() {
        auto link = m_connector.openAnonymous({"dc1", 389}, m_connector.within(seconds(8)));
        m_connector.takeEvents();
        return std::move(*link);
    }
    // The DNs that a search finds, and what is asked.
    std::vector<std::string> found(const LdapSearch& search) {
        std::vector<std::string> dns;
        const auto link = open();
        const Deadline deadline = m_connector.within(seconds(8));
        const auto done = LinkReader(*link, m_connector.pages, deadline).search(search, [&](Entry&& entry) {
            dns.push_back(entry.dn);
        });
        if (!done) m_failure = done.error();
        return dns;
    }

    FakeConnector m_connector;
    std::size_t m_total = 3;
    std::optional<LinkFailure> m_failure;
    const LdapSearch m_everybody{"DC=x", LDAP_SCOPE_SUBTREE, "(objectClass=*)", {"uid"}};
};

TEST_F(ResultsTest, AResultComesAsAWhole) {
    EXPECT_THAT(found(m_everybody), ElementsAre(dnOf(0), dnOf(1), dnOf(2)));
    EXPECT_THAT(m_connector.takeEvents(), ElementsAre("search dc1 DC=x"));
}

TEST_F(ResultsTest, OneThatIsCutComesByPagesEachEntryOnceAndPagesAreTheRuleFromThenOn) {
    controller().most = 2;
    EXPECT_THAT(found(m_everybody), ElementsAre(dnOf(0), dnOf(1), dnOf(2)));
    EXPECT_FALSE(m_failure);
    EXPECT_THAT(m_connector.takeEvents(),
                ElementsAre("search dc1 DC=x", "search dc1 DC=x by 1000", "search dc1 DC=x by 1000"));
    m_connector.clock.advance(std::chrono::hours(10'000));
    EXPECT_EQ(found(m_everybody).size(), 3u);
    EXPECT_EQ(m_connector.takeEvents().front(), "search dc1 DC=x by 1000");
}

TEST_F(ResultsTest, ALargeOneThatIsCollectedForAQuarterOfTheTimeComesByPagesForTenMinutes) {
    controller().answersAfter = seconds(60);
    LdapSearch many = m_everybody;
    many.extent = Extent::Many;
    const Moment start = m_connector.clock.now();
    EXPECT_THAT(found(many), IsEmpty());
    ASSERT_TRUE(m_failure);
    EXPECT_TRUE(m_failure->again);
    EXPECT_EQ(m_connector.clock.now() - start, seconds(2));
    EXPECT_TRUE(m_connector.pages.holds());
    m_connector.clock.advance(minutes(10) - milliseconds(1));
    EXPECT_TRUE(m_connector.pages.holds());
    m_connector.clock.advance(milliseconds(1));
    EXPECT_FALSE(m_connector.pages.holds());
}

TEST_F(ResultsTest, WhatIsNotLargeIsWaitedForToTheEnd) {
    controller().answersAfter = seconds(60);
    found(m_everybody);
    ASSERT_TRUE(m_failure);
    EXPECT_FALSE(m_failure->again);
    EXPECT_FALSE(m_connector.pages.holds());
}

TEST_F(ResultsTest, ARuleThatHoldsLongerIsNotCutShort) {
    PageRule rule(m_connector.clock);
    EXPECT_FALSE(rule.holds());
    rule.holdFor(minutes(10));
    rule.holdFor(minutes(1));
    m_connector.clock.advance(minutes(5));
    EXPECT_TRUE(rule.holds());
    rule.holdForEver();
    rule.holdFor(minutes(1));
    m_connector.clock.advance(std::chrono::hours(10'000));
    EXPECT_TRUE(rule.holds());
}

TEST_F(ResultsTest, AFailureAmongSeveralEndsTheConnectionOnlyWhereOthersAreUnderWay) {
    const auto run = [this](const std::vector<LdapSearch>& searches) {
        controller().failures = {{LDAP_INSUFFICIENT_ACCESS, "no"}};
        const auto link = open();
        const Deadline deadline = m_connector.within(seconds(8));
        EXPECT_FALSE(LinkReader(*link, m_connector.pages, deadline).searchAll(searches, [](Entry&&) {}));
        return link->looksUsable();
    };
    EXPECT_TRUE(run({m_everybody}));
    EXPECT_FALSE(run({m_everybody, m_everybody}));
}

TEST_F(ResultsTest, WhatWasSaidOfABaseThatIsNotThereIsKnownAtTheEnd) {
    controller().failures = {{LDAP_NO_SUCH_OBJECT, "not here"}};
    const auto link = open();
    const Deadline deadline = m_connector.within(seconds(8));
    std::size_t count = 0;
    const auto end =
        LinkReader(*link, m_connector.pages, deadline).searchAll({m_everybody, m_everybody}, [&](Entry&&) {
            ++count;
        });
    ASSERT_TRUE(end && end->missing);
    EXPECT_EQ(end->missing->text, "not here");
    EXPECT_EQ(count, 3u);
}

// ------------------------------------------------------------ large attributes

class PartsTest : public ResultsTest {
  protected:
    // A controller that sends the values of "member" in these parts.
    void sends(std::vector<std::string> parts) {
        controller().answer = [parts = std::move(parts), at = std::size_t{0}](
                                  const LdapSearch& search) mutable -> Linked<std::vector<Entry>> {
            if (at >= parts.size()) return std::vector<Entry>{{search.base, {}}};
            const std::string value = std::to_string(at);
            return std::vector<Entry>{{search.base, {{parts[at++], {value}}}}};
        };
    }
    Linked<Entry> completed(Entry entry) {
        const auto link = open();
        const Deadline deadline = m_connector.within(seconds(8));
        LinkReader reader(*link, m_connector.pages, deadline);
        if (const auto done = completeRanges(reader, entry); !done) return vorn::unexpected(done.error());
        return entry;
    }
};

TEST_F(PartsTest, ArePutTogetherUnderThePlainName) {
    sends({"member;range=1-1", "Member;range=2-*"});
    const auto entry = completed({"CN=g", {{"member;range=0-0", {"first"}}, {"member", {}}, {"cn", {"g"}}}});
    ASSERT_TRUE(entry);
    ASSERT_EQ(entry->attributes.size(), 2u);
    EXPECT_THAT(entry->find("member")->values, ElementsAre("first", "0", "1"));
}

TEST_F(PartsTest, AnEntryInOnePieceIsLeftAsItIs) {
    const auto entry = completed({"CN=g", {{"member", {}}}});
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->attributes.size(), 1u);
    EXPECT_THAT(m_connector.takeEvents(), IsEmpty());
}

TEST_F(PartsTest, TheLastOneMayEndAtTheVeryEnd) {
    sends({});
    const auto entry = completed({"CN=g", {{"member;range=0-0", {"first"}}}});
    ASSERT_TRUE(entry);
    EXPECT_THAT(entry->find("member")->values, ElementsAre("first"));
}

TEST_F(PartsTest, OnesThatLeadNowhereAreNotFollowedForEver) {
    sends({"member;range=0-0"});
    const auto back = completed({"CN=g", {{"member;range=0-5", {"first"}}}});
    ASSERT_FALSE(back);
    EXPECT_EQ(back.error().told, "the controller sends the parts of member without end");
    const auto odd = completed({"CN=g", {{"member;range=x", {"first"}}}});
    ASSERT_FALSE(odd);
    EXPECT_EQ(odd.error().told, "the controller sends a part that leads nowhere: member;range=x");
}

TEST_F(PartsTest, AFailureOnTheWayIsTold) {
    controller().failures = {{LDAP_BUSY, "busy", true}};
    const auto none = completed({"CN=g", {{"member;range=0-0", {"first"}}}});
    ASSERT_FALSE(none);
    EXPECT_EQ(none.error().text, "busy");
}

}  // namespace
}  // namespace vexagent
