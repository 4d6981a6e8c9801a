// SPDX-License-Identifier: Apache-2.0
// Searches of a domain that may be lost on the way, and those that stay open.

#include "agent/ad/net/searching.h"

#include <gmock/gmock.h>

#include "agent/ad/net/link_testing.h"

namespace vexagent {
namespace {

using std::chrono::seconds;
using ::testing::ElementsAre;

class SearchingTest : public ::testing::Test {
  protected:
    SearchingTest() {
        m_connector.options.controllers.servers = {"dc1", "dc2"};
        m_connector.options.connections = 1;
        for (const char* host : {"dc1", "dc2"})
            m_connector.controllers[host].answer = [this](const LdapSearch& search) { return held(search); };
        EXPECT_TRUE(m_domain.locator().locate());
        m_connector.takeEvents();
    }

    // Three people; a group of which one member comes in a part of its own.
    Linked<std::vector<Entry>> held(const LdapSearch& search) const {
        if (search.attributes == std::vector<std::string>{"member;range=1-*"})
            return std::vector<Entry>{{search.base, {{"member;range=1-*", {"b"}}}}};
        if (search.base == "CN=g") return std::vector<Entry>{{"CN=g", {{"member;range=0-0", {"a"}}}}};
        return std::vector<Entry>{entryOf("CN=1"), entryOf("CN=2"), entryOf("CN=3")};
    }
    Deadline soon() const { return m_connector.within(seconds(8)); }
    FakeController& first() { return m_connector.controllers["dc1"]; }

    static LongSearch threeByOne() {
        LongSearch search;
        search.search = {"DC=x"};
        search.first = 1;
        search.bytes = 100'000;
        return search;
    }
    static std::vector<std::string> dns(const std::vector<Entry>& entries) {
        std::vector<std::string> names;
        for (const Entry& entry : entries) names.push_back(entry.dn);
        return names;
    }

    FakeConnector m_connector;
    Domain m_domain{m_connector.context, {"example.com"}};
};

class Sink : public EntrySink {
  public:
    void restart() override { events.emplace_back("restart"); }
    void take(Entry&& entry) override {
        events.push_back(entry.dn);
        last = std::move(entry);
    }
    std::vector<std::string> events;
    Entry last;
};

TEST_F(SearchingTest, WhatIsLostBeginsAnewWithAnotherController) {
    Sink sink;
    first().failures = {{LDAP_UNAVAILABLE, "dc1: gone", true}};
    const auto end = searchIn(m_domain, {{"DC=x"}}, sink, soon());
    ASSERT_TRUE(end);
    EXPECT_FALSE(end->missing);
    EXPECT_THAT(sink.events, ElementsAre("restart", "restart", "CN=1", "CN=2", "CN=3"));
}

TEST_F(SearchingTest, WhatComesInPartsIsTakenInFull) {
    Sink sink;
    ASSERT_TRUE(searchIn(m_domain, {{"CN=g"}}, sink, soon()));
    EXPECT_THAT(sink.events, ElementsAre("restart", "CN=g"));
    EXPECT_THAT(sink.last.find("member")->values, ElementsAre("a", "b"));
}

TEST_F(SearchingTest, ARefusalIsToldAndABaseThatIsNotThereIsNone) {
    Sink sink;
    first().failures = {{LDAP_NO_SUCH_OBJECT, "not here"}, {LDAP_INSUFFICIENT_ACCESS, "no"}};
    const auto missing = searchIn(m_domain, {{"DC=x"}}, sink, soon());
    ASSERT_TRUE(missing && missing->missing);
    const auto refused = searchIn(m_domain, {{"DC=x"}}, sink, soon());
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().code, LDAP_INSUFFICIENT_ACCESS);
}

TEST_F(SearchingTest, AShortOneGivesItsConnectionBackAtOnce) {
    LongSearch search = threeByOne();
    search.first = 10;
    const auto opened = openSearch(m_domain, search, soon());
    ASSERT_TRUE(opened);
    EXPECT_THAT(dns(opened->first), ElementsAre("CN=1", "CN=2", "CN=3"));
    EXPECT_EQ(opened->rest, nullptr);
    EXPECT_TRUE(searchIn(m_domain, {{"CN=g"}}, *std::make_unique<Sink>(), soon()));
    EXPECT_EQ(m_connector.openLinks, 1);
}

TEST_F(SearchingTest, ALongOneStaysWithItsControllerToTheEnd) {
    auto opened = openSearch(m_domain, threeByOne(), soon());
    ASSERT_TRUE(opened && opened->rest);
    EXPECT_THAT(dns(opened->first), ElementsAre("CN=1"));
    const auto more = opened->rest->next(1, soon());
    ASSERT_TRUE(more);
    EXPECT_THAT(dns(*more), ElementsAre("CN=2"));
    EXPECT_FALSE(opened->rest->atEnd());
    const auto last = opened->rest->next(10, soon());
    ASSERT_TRUE(last);
    EXPECT_THAT(dns(*last), ElementsAre("CN=3"));
    EXPECT_TRUE(opened->rest->atEnd());
    EXPECT_THAT(m_connector.takeEvents(), ElementsAre("open dc1", "search dc1 DC=x"));
}

TEST_F(SearchingTest, OneThatIsGivenUpClosesItsConnection) {
    auto opened = openSearch(m_domain, threeByOne(), soon());
    ASSERT_TRUE(opened && opened->rest);
    EXPECT_EQ(m_connector.openLinks, 1);
    opened->rest.reset();
    EXPECT_EQ(m_connector.openLinks, 0) << "entries that nobody has read are on their way";
}

TEST_F(SearchingTest, WhatIsNotWantedIsPassedOverAndBytesEndABatch) {
    LongSearch search = threeByOne();
    search.first = 10;
    search.wanted = [](const Entry& entry) { return entry.dn != "CN=1"; };
    search.bytes = 1;
    const auto opened = openSearch(m_domain, search, soon());
    ASSERT_TRUE(opened);
    EXPECT_THAT(dns(opened->first), ElementsAre("CN=2"));
}

TEST_F(SearchingTest, TheFirstBatchMayBeLostAndBeginsAnew) {
    first().failures = {{LDAP_UNAVAILABLE, "dc1: gone", true}};
    const auto opened = openSearch(m_domain, threeByOne(), soon());
    ASSERT_TRUE(opened);
    EXPECT_THAT(dns(opened->first), ElementsAre("CN=1"));
}

TEST_F(SearchingTest, ALossLaterIsTheEndOfIt) {
    auto opened = openSearch(m_domain, threeByOne(), soon());
    ASSERT_TRUE(opened && opened->rest);
    first().takesConnections = false;
    const auto none = opened->rest->next(1, soon());
    ASSERT_FALSE(none);
    EXPECT_TRUE(none.error().lost);
    EXPECT_TRUE(opened->rest->atEnd());
    EXPECT_EQ(m_connector.openLinks, 0);
}

TEST_F(SearchingTest, NoMoreAreOpenThanFourTimesTheConnections) {
    std::vector<std::unique_ptr<OpenSearch>> open;
    for (int i = 0; i < 4; ++i) {
        auto opened = openSearch(m_domain, threeByOne(), soon());
        ASSERT_TRUE(opened && opened->rest);
        open.push_back(std::move(opened->rest));
    }
    const auto tooMany = openSearch(m_domain, threeByOne(), soon());
    ASSERT_FALSE(tooMany);
    EXPECT_EQ(tooMany.error().code, LDAP_BUSY);
    EXPECT_EQ(tooMany.error().told, "too many searches are open");
    EXPECT_FALSE(tooMany.error().lost);
    open.pop_back();
    EXPECT_TRUE(openSearch(m_domain, threeByOne(), soon()));
}

TEST_F(SearchingTest, ThePartsOfABatchAreReadOnAnotherConnection) {
    LongSearch group = threeByOne();
    group.search = {"CN=g"};
    group.first = 10;
    const auto opened = openSearch(m_domain, group, soon());
    ASSERT_TRUE(opened);
    EXPECT_THAT(opened->first.front().find("member")->values, ElementsAre("a", "b"));
}

}  // namespace
}  // namespace vexagent
