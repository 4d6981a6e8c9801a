// SPDX-License-Identifier: Apache-2.0
// Where a domain's controllers are.

#include "agent/ad/net/locator.h"

#include <gmock/gmock.h>

#include <atomic>
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

constexpr char kService[] = "_ldap._tcp.dc._msdcs.example.com";
constexpr char kSiteService[] = "_ldap._tcp.Here._sites.dc._msdcs.example.com";

class LocatorTest : public ::testing::Test {
  protected:
    explicit LocatorTest(Place place = {"example.com"}) : m_place(std::move(place)) {}

    // "host:port", in the order in which they are asked.
    std::vector<std::string> found() {
        std::vector<std::string> peers;
        for (const Controllers::Choice& choice : m_controllers.order(m_connector.clock.now()))
            peers.push_back(choice.peer.host + ":" + std::to_string(choice.peer.port));
        return peers;
    }
    std::string reason() {
        const auto located = m_locator.locate();
        return located ? "" : located.error();
    }

    FakeConnector m_connector;
    const Place m_place;
    Controllers m_controllers{[] { return 0.5; }};
    Locator m_locator{m_connector.context, m_place, m_controllers};
};

TEST_F(LocatorTest, AListNeedsNobodyToAsk) {
    m_connector.options.controllers.servers = {"dc1", "dc2:1389", "not a host"};
    EXPECT_EQ(reason(), "");
    EXPECT_THAT(found(), ElementsAre("dc1:389", "dc2:1389"));
    EXPECT_THAT(m_connector.takeEvents(), ElementsAre("learn dc1", "learn dc2"));
    m_connector.options.transport = Transport::Ldaps;
    EXPECT_EQ(reason(), "");
    EXPECT_THAT(found(), ElementsAre("dc1:636", "dc2:1389"));
}

TEST_F(LocatorTest, ThoseOfTheSiteComeFirstAndEachOnce) {
    m_connector.options.controllers.site = "Here";
    m_connector.services[kSiteService] = {{0, 0, 389, "NEAR.example.com"}};
    m_connector.services[kService] = {{0, 0, 389, "far.example.com"}, {0, 0, 389, "near.example.com"}};
    EXPECT_EQ(reason(), "");
    EXPECT_THAT(found(), ElementsAre("near.example.com:389", "far.example.com:389"));
}

TEST_F(LocatorTest, TheLeastOfTheSiteComesBeforeTheBestOfTheOthers) {
    m_connector.options.controllers.site = "Here";
    m_connector.services[kSiteService] = {{65535, 0, 389, "near.example.com"}};
    m_connector.services[kService] = {{0, 0, 389, "far.example.com"}};
    EXPECT_EQ(reason(), "");
    m_controllers.succeeded({"far.example.com", 389});  // of two as good it would be the first
    EXPECT_THAT(found(), ElementsAre("near.example.com:389", "far.example.com:389"));
}

TEST_F(LocatorTest, WhyThereAreNoneIsToldOnce) {
    const auto told = [this] {
        const test::CapturedLog log;
        EXPECT_NE(reason(), "");
        return log.text();
    };
    const std::string why = "no controllers of example.com are found: " + std::string(kService);
    EXPECT_THAT(told(), HasSubstr(why + ": no such service\n"));
    EXPECT_EQ(told(), "");
    m_connector.services[kService] = {};
    m_connector.options.controllers.site = "Here";
    m_connector.services[kSiteService] = {{0, 0, 389, "dc1.example.com"}};
    const test::CapturedLog log;
    EXPECT_EQ(reason(), "");
    EXPECT_EQ(log.text(), "");
}

TEST_F(LocatorTest, OfStrangersAFewAreToldOfOnceEach) {
    m_connector.options.transport = Transport::Ldaps;
    for (int i = 0; i < 65; ++i)
        m_connector.services[kService].push_back({0, 0, 389, "dc" + std::to_string(i) + ".evil.org"});
    for (const int expected : {64, 0}) {
        const test::CapturedLog log;
        EXPECT_NE(reason(), "");
        const std::string text = log.text();
        int lines = 0;
        for (std::size_t at = 0; (at = text.find(" for example.com: it is not asked, since it lies neither",
                                                 at)) != std::string::npos;
             ++at)
            ++lines;
        EXPECT_EQ(lines, expected) << text;
    }
}

TEST_F(LocatorTest, WhoWaitsIsWokenWhenSomeAreFound) {
    m_connector.services[kService] = {{0, 0, 389, "dc1.example.com"}};
    std::atomic<bool> waits = false;
    bool found = false;
    const Deadline deadline = m_connector.within(seconds(60));
    std::thread waiter([&] {
        waits = true;
        found = m_locator.waitForSome(deadline).has_value();
    });
    while (!waits) std::this_thread::yield();
    std::this_thread::yield();
    EXPECT_EQ(reason(), "");
    waiter.join();
    EXPECT_TRUE(found);
}

TEST_F(LocatorTest, ASiteWithoutAnyLeavesTheOthers) {
    m_connector.options.controllers.site = "Here";
    m_connector.services[kService] = {{1, 0, 389, "b.example.com"}, {0, 0, 390, "a.example.com"}};
    EXPECT_EQ(reason(), "");
    EXPECT_THAT(found(), ElementsAre("a.example.com:390", "b.example.com:389"));
}

TEST_F(LocatorTest, ARecordNamesThePortWithoutTls) {
    m_connector.options.transport = Transport::Ldaps;
    m_connector.services[kService] = {{0, 0, 389, "dc1.example.com"}};
    EXPECT_EQ(reason(), "");
    EXPECT_THAT(found(), ElementsAre("dc1.example.com:636"));
}

TEST_F(LocatorTest, WithAPasswordAStrangerIsNotAskedAndWithTicketsEachProvesItself) {
    m_connector.services[kService] = {{0, 0, 389, "dc1.evil.org"}};
    m_connector.options.transport = Transport::StartTls;
    EXPECT_EQ(reason(), "DNS names dc1.evil.org, which is not below example.com");
    EXPECT_THAT(found(), IsEmpty());
    m_connector.options.transport = Transport::Gssapi;
    EXPECT_EQ(reason(), "");
    EXPECT_THAT(found(), ElementsAre("dc1.evil.org:389"));
}

TEST_F(LocatorTest, AStrangerMayTurnOutToBeTheForests) {
    m_connector.options.transport = Transport::StartTls;
    m_connector.services[kService] = {{0, 0, 389, "dc1.forest.org"}};
    EXPECT_NE(reason(), "");
    EXPECT_FALSE(m_locator.isDue());
    m_locator.learnForest("forest.org");
    EXPECT_TRUE(m_locator.isDue());
    EXPECT_EQ(reason(), "");
    EXPECT_THAT(found(), ElementsAre("dc1.forest.org:389"));
    m_locator.learnForest("forest.org");
}

TEST_F(LocatorTest, ThoseKnownBeforeAreKeptWhereDnsHasGone) {
    m_connector.services[kService] = {{0, 0, 389, "dc1.example.com"}};
    EXPECT_EQ(reason(), "");
    m_connector.services.clear();
    EXPECT_EQ(reason(), std::string(kService) + ": no such service");
    EXPECT_THAT(found(), ElementsAre("dc1.example.com:389"));
}

TEST_F(LocatorTest, TheyAreLookedForAnewEveryTenMinutesAndSoonerWhereThereAreNone) {
    EXPECT_TRUE(m_locator.isDue());
    EXPECT_NE(reason(), "");
    m_connector.clock.advance(seconds(15) - milliseconds(1));
    EXPECT_FALSE(m_locator.isDue());
    m_connector.clock.advance(milliseconds(1));
    EXPECT_TRUE(m_locator.isDue());
    m_connector.services[kService] = {{0, 0, 389, "dc1.example.com"}};
    EXPECT_EQ(reason(), "");
    m_connector.clock.advance(minutes(10) - milliseconds(1));
    EXPECT_FALSE(m_locator.isDue());
    m_connector.clock.advance(milliseconds(1));
    EXPECT_TRUE(m_locator.isDue());
}

TEST_F(LocatorTest, WhoAsksBeforeAnyAreKnownIsToldWhy) {
    const Deadline over = m_connector.within(milliseconds(0));
    EXPECT_EQ(m_locator.waitForSome(over).error().text,
              "no controller of example.com is known: DNS has not answered yet");
    EXPECT_NE(reason(), "");
    const auto none = m_locator.waitForSome(m_connector.within(seconds(60)));
    EXPECT_EQ(none.error().text,
              "no controller of example.com is known: " + std::string(kService) + ": no such service");
    EXPECT_TRUE(none.error().lost);
    m_connector.services[kService] = {{0, 0, 389, "dc1.example.com"}};
    EXPECT_EQ(reason(), "");
    EXPECT_TRUE(m_locator.waitForSome(over));
}

class CatalogLocatorTest : public LocatorTest {
  protected:
    CatalogLocatorTest() : LocatorTest({"forest.com", Place::Kind::Catalog}) {}
};

TEST_F(CatalogLocatorTest, ACatalogHasAServiceAndAPortOfItsOwn) {
    m_connector.services["_gc._tcp.forest.com"] = {{0, 0, 3268, "dc1.forest.com"}};
    EXPECT_EQ(reason(), "");
    EXPECT_THAT(found(), ElementsAre("dc1.forest.com:3268"));
    m_connector.options.controllers.servers = {"dc1:1389"};
    EXPECT_EQ(reason(), "");
    EXPECT_THAT(found(), ElementsAre("dc1:3268"));
    m_connector.options.transport = Transport::Ldaps;
    EXPECT_EQ(reason(), "");
    EXPECT_THAT(found(), ElementsAre("dc1:3269"));
}

class OtherLocatorTest : public LocatorTest {
  protected:
    OtherLocatorTest() : LocatorTest({"sub.example.com", Place::Kind::Domain, "example.com"}) {}
};

TEST_F(OtherLocatorTest, AListIsTheJoinedDomainsOnly) {
    m_connector.options.controllers.servers = {"dc1"};
    m_connector.options.transport = Transport::StartTls;
    m_connector.services["_ldap._tcp.dc._msdcs.sub.example.com"] = {{0, 0, 389, "dc9.example.com"}};
    EXPECT_EQ(reason(), "");
    EXPECT_THAT(found(), ElementsAre("dc9.example.com:389")) << "below its forest's name";
}

}  // namespace
}  // namespace vexagent
