// SPDX-License-Identifier: Apache-2.0
// Which controller is asked, for how long, and what it means that one does not answer.

#include "agent/ad/net/domain.h"

#include <gmock/gmock.h>

#include <thread>

#include "agent/ad/net/link_testing.h"
#include "agent/directory/log_testing.h"

namespace vexagent {
namespace {

using std::chrono::minutes;
using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

constexpr char kAnn[] = "CN=Ann,DC=example,DC=com";

class DomainTest : public ::testing::Test {
  protected:
    DomainTest() {
        m_connector.options.controllers.servers = {"dc1", "dc2"};
        m_connector.options.transport = Transport::Ldaps;
    }

    Domain& domain() {
        if (!m_domain) {
            m_domain.emplace(m_connector.context, Place{"example.com"});
            EXPECT_TRUE(m_domain->locator().locate());
            m_connector.takeEvents();
        }
        return *m_domain;
    }
    FakeController& first() { return m_connector.controllers["dc1"]; }
    FakeController& second() { return m_connector.controllers["dc2"]; }
    void advance(milliseconds time) { m_connector.clock.advance(time); }
    Deadline soon() const { return m_connector.within(milliseconds(8000)); }

    // Searches below "DC=x" with this connection; what came of it.
    Linked<Done> ask(const Deadline& deadline) {
        return domain().run(deadline, [&](Domain::Lease& lease) {
            return LinkReader(*lease, m_connector.pages, deadline).search({"DC=x"}, [](Entry&&) {});
        });
    }
    Linked<Done> ask() { return ask(soon()); }
    std::vector<std::string> eventsOf(const std::function<void()>& act) {
        m_connector.takeEvents();
        act();
        return m_connector.takeEvents();
    }

    FakeConnector m_connector;
    std::optional<Domain> m_domain;
};

// --------------------------------------------------------------------- failover

TEST_F(DomainTest, AConnectionIsUsedAgainAndAgain) {
    EXPECT_TRUE(ask());
    EXPECT_TRUE(ask());
    EXPECT_THAT(m_connector.takeEvents(), ElementsAre("open dc1", "search dc1 DC=x", "search dc1 DC=x"));
    EXPECT_EQ(m_connector.openLinks, 1);
}

TEST_F(DomainTest, WhereOneIsNotThereTheNextIsAskedAndStaysInUse) {
    first().takesConnections = false;
    EXPECT_TRUE(ask());
    EXPECT_TRUE(ask());
    EXPECT_THAT(m_connector.takeEvents(),
                ElementsAre("open dc1", "open dc2", "search dc2 DC=x", "search dc2 DC=x"));
}

TEST_F(DomainTest, WhatIsLostOnTheWayIsDoneAnewFromItsBeginning) {
    first().failures = {{LDAP_UNAVAILABLE, "dc1: stops", true}};
    std::vector<std::string> hosts;
    const Deadline deadline = soon();
    const auto done = domain().run(deadline, [&](Domain::Lease& lease) {
        hosts.push_back(lease->peer().host);
        return LinkReader(*lease, m_connector.pages, deadline).search({"DC=x"}, [](Entry&&) {});
    });
    EXPECT_TRUE(done);
    EXPECT_THAT(hosts, ElementsAre("dc1", "dc2"));
}

TEST_F(DomainTest, AControllersOwnRefusalIsTheAnswer) {
    first().failures = {{LDAP_INSUFFICIENT_ACCESS, "no"}};
    const auto done = ask();
    ASSERT_FALSE(done);
    EXPECT_EQ(done.error().code, LDAP_INSUFFICIENT_ACCESS);
    EXPECT_THAT(m_connector.takeEvents(), ElementsAre("open dc1", "search dc1 DC=x"));
    EXPECT_EQ(m_connector.openLinks, 1) << "nothing is wrong with the connection";
}

TEST_F(DomainTest, NobodyThereIsToldWithTheLastReason) {
    first().takesConnections = second().takesConnections = false;
    const auto done = ask();
    ASSERT_FALSE(done);
    EXPECT_TRUE(done.error().lost);
    EXPECT_EQ(done.error().text, "dc2: refused");
    EXPECT_TRUE(domain().controllers().allDown(m_connector.clock.now()));
}

TEST_F(DomainTest, OneThatFailedIsPassedOverUntilItIsDueAndTriedApartFromRequests) {
    first().takesConnections = false;
    EXPECT_TRUE(ask());
    first().takesConnections = true;
    advance(milliseconds(999));
    EXPECT_THAT(eventsOf([&] { domain().tend(); }), IsEmpty());
    advance(milliseconds(1));
    EXPECT_THAT(eventsOf([&] { domain().tend(); }), ElementsAre("look dc1", "search dc1 "));
    // It is no better than the one in use.
    EXPECT_THAT(eventsOf([&] { EXPECT_TRUE(ask()); }), ElementsAre("search dc2 DC=x"));
}

TEST_F(DomainTest, OneThatAnswersAgainIsAsGoodAsEver) {
    first().takesConnections = false;
    {
        const test::CapturedLog log;
        EXPECT_TRUE(ask());
        EXPECT_THAT(log.text(), HasSubstr("controller dc1 has failed: dc1: refused\n"));
    }
    first().takesConnections = true;
    advance(seconds(1));
    const Peer dc1{"dc1", 636};
    const test::CapturedLog log;
    domain().tend();
    EXPECT_THAT(log.text(), HasSubstr("controller dc1 answers again\n"));
    EXPECT_FALSE(domain().controllers().dueAgain(m_connector.clock.now()));
    EXPECT_TRUE(domain().controllers().hasAnsweredSince(dc1, m_connector.clock.now()));
}

TEST_F(DomainTest, WhenTheTimeIsUpNobodyElseIsAsked) {
    first().answersAfter = seconds(60);
    const auto late = ask();
    ASSERT_FALSE(late);
    for (const std::string& event : m_connector.takeEvents()) EXPECT_NE(event, "open dc2");
}

TEST_F(DomainTest, WhatIsIdleForLongIsClosed) {
    EXPECT_TRUE(ask());
    EXPECT_EQ(m_connector.openLinks, 1);
    advance(minutes(60));
    domain().tend();
    EXPECT_EQ(m_connector.openLinks, 0);
}

TEST_F(DomainTest, OneThatFailsLosesItsIdleConnections) {
    const Deadline deadline = soon();
    // Two are idle then.
    EXPECT_TRUE(domain().run(deadline, [&](Domain::Lease&) { return ask(); }));
    EXPECT_EQ(m_connector.openLinks, 2);
    first().failures = {{LDAP_UNAVAILABLE, "dc1: stops", true}};
    EXPECT_TRUE(ask());
    EXPECT_EQ(m_connector.openLinks, 1) << "to the other";
}

TEST_F(DomainTest, OneWhoseIdleConnectionIsClosedLosesTheOthersToo) {
    EXPECT_TRUE(domain().run(soon(), [&](Domain::Lease&) { return ask(); }));
    first().failures = {{LDAP_SERVER_DOWN, "dc1: closed", true}};
    EXPECT_TRUE(ask());
    EXPECT_EQ(m_connector.openLinks, 1) << "a fresh one";
}

TEST_F(DomainTest, OneThatIsStillAwayIsTriedEverMoreRarely) {
    first().takesConnections = false;
    EXPECT_TRUE(ask());
    std::vector<long> at;
    const Moment start = m_connector.clock.now();
    for (int second = 0; second < 60; ++second) {
        advance(seconds(1));
        if (!eventsOf([&] { domain().tend(); }).empty())
            at.push_back(std::chrono::duration_cast<seconds>(m_connector.clock.now() - start).count());
    }
    EXPECT_THAT(at, ElementsAre(1, 3, 7, 15, 31));
}

TEST_F(DomainTest, WhereAllFailedAMomentAgoOneGetsHalfASecondForAConnection) {
    first().takesConnections = second().takesConnections = false;
    EXPECT_FALSE(ask());
    first() = second() = {};
    first().opensAfter = seconds(60);
    const Moment start = m_connector.clock.now();
    EXPECT_TRUE(ask());
    EXPECT_EQ(m_connector.clock.now() - start, milliseconds(500));
}

// --------------------------------------------------------------------- patience

TEST_F(DomainTest, OneThatHangsIsLookedAtAndLeftForAnother) {
    first().hangs = true;
    const Moment start = m_connector.clock.now();
    EXPECT_TRUE(ask());
    EXPECT_THAT(m_connector.takeEvents(), ElementsAre("open dc1", "search dc1 DC=x", "look dc1",
                                                      "search dc1 ", "open dc2", "search dc2 DC=x"));
    // A patience, and a look at it.
    EXPECT_EQ(m_connector.clock.now() - start, milliseconds(1500 + 1000));
}

// It has let the agent in since the request began: the request has used up its own time.
TEST_F(DomainTest, TheLastOneIsWaitedForToTheEnd) {
    m_connector.options.controllers.servers = {"dc1"};
    first().hangs = true;
    const Deadline deadline = soon();
    const auto done = ask(deadline);
    ASSERT_FALSE(done);
    EXPECT_TRUE(deadline.passed());
    EXPECT_EQ(done.error().code, LDAP_TIMELIMIT_EXCEEDED);
    EXPECT_FALSE(domain().controllers().allDown(m_connector.clock.now()));
}

TEST_F(DomainTest, OneThatTakesItsTimeForAConnectionIsLeftAfterTwoSecondsOrHalfTheTime) {
    first().opensAfter = seconds(60);
    Moment start = m_connector.clock.now();
    EXPECT_TRUE(ask());
    EXPECT_EQ(m_connector.clock.now() - start, seconds(2));
    m_domain.reset();
    start = m_connector.clock.now();
    EXPECT_TRUE(ask(m_connector.within(milliseconds(1000))));
    EXPECT_EQ(m_connector.clock.now() - start, milliseconds(500));
}

TEST_F(DomainTest, OneThatAnsweredNobodySinceARequestBeganIsAtFaultForBeingLate) {
    EXPECT_TRUE(ask());
    advance(milliseconds(1));
    m_connector.options.controllers.servers = {"dc1"};
    EXPECT_TRUE(domain().locator().locate());
    first().hangs = true;
    const Deadline deadline = soon();
    const auto done = ask(deadline);
    ASSERT_FALSE(done);
    EXPECT_EQ(done.error().code, LDAP_TIMEOUT);
    EXPECT_TRUE(done.error().lost);
    EXPECT_TRUE(domain().controllers().allDown(m_connector.clock.now()));
}

TEST_F(DomainTest, WhoBarsTheAgentIsThereAndTheNextIsAsked) {
    first().letsIn = false;
    EXPECT_TRUE(ask());
    EXPECT_THAT(m_connector.takeEvents(), ElementsAre("open dc1", "open dc2", "search dc2 DC=x"));
    second().letsIn = false;
    m_domain.reset();
    EXPECT_FALSE(ask());
    EXPECT_FALSE(domain().controllers().allDown(m_connector.clock.now()));
}

// ------------------------------------------------------------- idle connections

TEST_F(DomainTest, AnIdleConnectionThatWasClosedIsReplacedAtTheSameController) {
    EXPECT_TRUE(ask());
    first().failures = {{LDAP_SERVER_DOWN, "dc1: closed", true}};
    EXPECT_THAT(eventsOf([&] { EXPECT_TRUE(ask()); }),
                ElementsAre("search dc1 DC=x", "open dc1", "search dc1 DC=x"));
    EXPECT_FALSE(domain().controllers().allDown(m_connector.clock.now()));
}

TEST_F(DomainTest, ALargeResultThatTookLongIsAskedForOnceMoreAtTheSameController) {
    LinkFailure late(LDAP_TIMEOUT, "dc1: collects", true);
    late.again = true;
    int runs = 0;
    std::vector<std::string> hosts;
    EXPECT_TRUE(domain().run(soon(), [&](Domain::Lease& lease) -> Linked<Done> {
        hosts.push_back(lease->peer().host);
        if (++runs == 1) return vorn::unexpected(late);
        return Done();
    }));
    EXPECT_THAT(hosts, ElementsAre("dc1", "dc1"));
}

TEST_F(DomainTest, NoMoreRequestsRunThanThereAreConnectionsFor) {
    m_connector.options.connections = 1;
    const test::CapturedLog log;
    const auto outer = domain().run(soon(), [&](Domain::Lease&) -> Linked<Done> {
        const auto inner = ask(m_connector.within(milliseconds(0)));
        EXPECT_FALSE(inner);
        EXPECT_EQ(inner.error().code, LDAP_TIMELIMIT_EXCEEDED);
        return Done();
    });
    EXPECT_TRUE(outer);
    EXPECT_THAT(log.text(), HasSubstr("all connections to example.com are in use (ad.connections)\n"));
    EXPECT_TRUE(ask());
}

// -------------------------------------------------------------------- passwords

TEST_F(DomainTest, APasswordIsSentToOneControllerOnce) {
    EXPECT_TRUE(domain().tryPassword(kAnn, "welcome", soon()));
    const auto wrong = domain().tryPassword(kAnn, "guess", soon());
    ASSERT_FALSE(wrong);
    EXPECT_EQ(wrong.error().code, LDAP_INVALID_CREDENTIALS);
    EXPECT_THAT(m_connector.takeEvents(), ElementsAre("look dc1", "bind dc1 " + std::string(kAnn), "look dc1",
                                                      "bind dc1 " + std::string(kAnn)));
}

TEST_F(DomainTest, OneThatHasNotSeenItYetIsLeftForTheNext) {
    first().takesConnections = false;
    EXPECT_TRUE(domain().tryPassword(kAnn, "welcome", soon()));
    EXPECT_THAT(m_connector.takeEvents(),
                ElementsAre("look dc1", "look dc2", "bind dc2 " + std::string(kAnn)));
}

TEST_F(DomainTest, OneThatHasSeenItAndHangsIsTheOnlyOne) {
    first().hangs = true;
    const auto late = domain().tryPassword(kAnn, "welcome", soon());
    ASSERT_FALSE(late);
    EXPECT_TRUE(late.error().lost);
    EXPECT_THAT(m_connector.takeEvents(), ElementsAre("look dc1", "bind dc1 " + std::string(kAnn)));
}

TEST_F(DomainTest, ForAPasswordTheLastOneHasAllTheTimeForAConnection) {
    first().opensAfter = seconds(60);
    Moment start = m_connector.clock.now();
    EXPECT_TRUE(domain().tryPassword(kAnn, "welcome", soon()));
    EXPECT_EQ(m_connector.clock.now() - start, seconds(2));
    m_domain.reset();
    second().opensAfter = seconds(60);
    start = m_connector.clock.now();
    EXPECT_FALSE(domain().tryPassword(kAnn, "welcome", soon()));
    EXPECT_EQ(m_connector.clock.now() - start, seconds(8));
}

TEST_F(DomainTest, OneThatRefusesAPasswordLateHasRefusedItAllTheSame) {
    first().refusesBind = LinkFailure(LDAP_UNWILLING_TO_PERFORM, "no");
    const auto refused = domain().tryPassword(kAnn, "welcome", soon());
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().text, "no");
    first().refusesBind = LinkFailure(LDAP_UNAVAILABLE, "gone", true);
    const auto lost = domain().tryPassword(kAnn, "welcome", soon());
    ASSERT_FALSE(lost);
    EXPECT_EQ(lost.error().text, "gone") << "there was time";
}

TEST_F(DomainTest, APasswordThatNobodyWasAskedAboutIsNotAccepted) {
    const auto late = domain().tryPassword(kAnn, "welcome", m_connector.within(milliseconds(0)));
    ASSERT_FALSE(late);
    EXPECT_EQ(late.error().code, LDAP_TIMELIMIT_EXCEEDED);
    first().takesConnections = second().takesConnections = false;
    const auto alone = domain().tryPassword(kAnn, "welcome", soon());
    ASSERT_FALSE(alone);
    EXPECT_TRUE(alone.error().lost);
}

TEST_F(DomainTest, WithoutControllersNoPasswordIsAcceptedAndNothingIsAsked) {
    Domain nowhere(m_connector.context, {"elsewhere.org"});
    const auto alone = nowhere.tryPassword(kAnn, "welcome", m_connector.within(milliseconds(0)));
    ASSERT_FALSE(alone);
    EXPECT_TRUE(alone.error().lost);
    EXPECT_THAT(alone.error().text, HasSubstr("DNS has not answered yet"));
    EXPECT_THAT(m_connector.events, IsEmpty());
}

// ------------------------------------------------------- whether somebody answers

TEST_F(DomainTest, AnAnswerOfAMomentAgoIsTakenForHealth) {
    EXPECT_TRUE(ask());
    EXPECT_THAT(eventsOf([&] { EXPECT_TRUE(domain().health(soon())); }), IsEmpty());
    advance(milliseconds(2000));
    EXPECT_THAT(eventsOf([&] { EXPECT_TRUE(domain().health(soon())); }), ElementsAre("search dc1 "));
}

TEST_F(DomainTest, WhoWaitedInVainAMomentAgoIsNotKeptWaitingToBeToldSo) {
    first().takesConnections = second().takesConnections = false;
    EXPECT_FALSE(ask());
    EXPECT_THAT(eventsOf([&] { EXPECT_FALSE(domain().health(soon())); }), IsEmpty());
    advance(milliseconds(2000));
    first().takesConnections = true;
    EXPECT_TRUE(domain().health(soon()));
}

TEST_F(DomainTest, AllAreAskedAtTheSameTimeWhetherTheyAnswer) {
    first().takesConnections = false;
    EXPECT_TRUE(domain().answersNow(m_connector.within(milliseconds(1000))));
    EXPECT_THAT(m_connector.takeEvents(), UnorderedElementsAre("look dc1", "look dc2", "search dc2 "));
    second().takesConnections = false;
    EXPECT_FALSE(domain().answersNow(m_connector.within(milliseconds(1000))));
}

TEST_F(DomainTest, AConnectionThatIsLostLaterIsTheControllersFaultUnlessTheTimeIsUp) {
    const Deadline deadline = soon();
    const LinkFailure lost(LDAP_UNAVAILABLE, "dc1: gone", true);
    const LinkFailure refused(LDAP_INSUFFICIENT_ACCESS, "no");
    EXPECT_TRUE(domain().run(deadline, [&](Domain::Lease& lease) -> Linked<Done> {
        EXPECT_EQ(domain().blame(*lease, deadline, refused).text, "no");
        EXPECT_EQ(domain().blame(*lease, deadline, lost).text, "dc1: gone");
        m_connector.clock.set(deadline.end());
        EXPECT_EQ(domain().blame(*lease, deadline, lost).code, LDAP_TIMELIMIT_EXCEEDED);
        return Done();
    }));
}

// -------------------------------------------------------------- what a domain is

class DomainInfoTest : public DomainTest {
  protected:
    DomainInfoTest() {
        first().answer = [](const LdapSearch& search) -> Linked<std::vector<Entry>> {
            if (search.base.empty())
                return std::vector<Entry>{
                    {"",
                     {{"rootDomainNamingContext", {"DC=forest,DC=com"}},
                      {"configurationNamingContext", {"CN=Configuration,DC=forest,DC=com"}}}}};
            if (search.base == "DC=example,DC=com")
                return std::vector<Entry>{{search.base, {{"objectSid", {"sid"}}}}};
            if (search.base == "CN=Partitions,CN=Configuration,DC=forest,DC=com")
                return std::vector<Entry>{
                    {"CN=A", {{"nETBIOSName", {"EX"}}, {"nCName", {"dc=Example,dc=com"}}}},
                    {"CN=B", {{"nETBIOSName", {"FOREST"}}, {"nCName", {"DC=forest,DC=com"}}}},
                    {"CN=C", {{"nCName", {"DC=DomainDnsZones,DC=forest,DC=com"}}}}};
            return vorn::unexpected(LinkFailure(LDAP_NO_SUCH_OBJECT, "no"));
        };
    }
};

TEST_F(DomainInfoTest, ADomainSaysOnceWhatItIs) {
    for (int i = 0; i < 2; ++i) {
        const auto info = domain().info(soon());
        ASSERT_TRUE(info);
        EXPECT_EQ((*info)->root, "DC=example,DC=com");
        EXPECT_EQ((*info)->forest, "DC=forest,DC=com");
        EXPECT_EQ((*info)->sid, "sid");
        EXPECT_EQ((*info)->netbios, "EX");
        EXPECT_EQ((*info)->domains, 2) << "partitions without a short name are no domains";
    }
    EXPECT_EQ(m_connector.takeEvents().size(), 4u);
}

TEST_F(DomainInfoTest, OneThatDoesNotSayWhatItHoldsIsAskedAgain) {
    const auto answer = std::exchange(first().answer, {});
    const auto none = domain().info(soon());
    ASSERT_FALSE(none);
    EXPECT_EQ(none.error().text, "example.com: the controller does not say what it holds");
    EXPECT_FALSE(none.error().lost);
    first().answer = answer;
    EXPECT_TRUE(domain().info(soon()));
}

TEST_F(DomainInfoTest, AFailureOnTheWayIsToldAndNothingIsKept) {
    for (int search = 0; search < 2; ++search) {
        // The root DSE comes; what is asked for next does not.
        first().failures.assign(1, {LDAP_INSUFFICIENT_ACCESS, "no"});
        const auto none = domain().info(soon());
        ASSERT_FALSE(none);
        EXPECT_EQ(none.error().text, "no");
    }
    EXPECT_TRUE(domain().info(soon()));
}

}  // namespace
}  // namespace vexagent
