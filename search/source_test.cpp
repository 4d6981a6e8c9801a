// SPDX-License-Identifier: Apache-2.0
// Where the objects of a search come from, without a request of slapd's.
#include "search/source.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "search/fixture_testing.h"
#include "vorn/thread.h"

#include "tests/standin/slapd_standin.h"

namespace {

using searchtest::person;
using testing::ElementsAre;
using testing::IsEmpty;

class SourceTest : public searchtest::Fixture {
  protected:
    SourceTest() {
        vorn::Thread::SetThreadsActive(true);
        useCache();
        static_cast<void>(SearchSource());  // the first one gives the cache its settings
        m_request.filter = "(uid=ann)";
        m_request.base = "dc=x";
        m_request.scope = LDAP_SCOPE_SUBTREE;
        m_request.key = "(uid=ann)dc=x2";
        m_request.cacheable = true;
    }
    // What the source gives, by GUID, and the code that ended it.
    std::vector<std::string> read(SearchSource& source, std::size_t most = 100) {
        std::vector<std::string> guids;
        ObjectSource& objects = source.objects(most);
        FoundObject found;
        while ((m_end = objects.next(&found)) == VEX_OK) {
            vex::UniqueString guid;
            vex::readAttribute(source.session(), found.object.get(), AD_OBJECT_GUID_TEXT, &guid);
            guids.emplace_back(guid.get());
        }
        m_isFailure = objects.isFailure(m_end);
        return guids;
    }
    // A search from its session to its end.
    std::vector<std::string> search() {
        SearchSource source;
        EXPECT_EQ(source.open(), VEX_OK);
        source.begin(m_request);
        m_replayed = source.replay(m_request);
        if (!m_replayed) {
            EXPECT_EQ(source.ask(m_request, SLAP_NO_LIMIT, 0), VEX_OK);
        }
        auto guids = read(source);
        source.finish(*m_operation.op());
        return guids;
    }

    standin::FakeConnection m_connection;
    standin::FakeOperation m_operation{m_connection};
    SearchRequest m_request;
    bool m_replayed = false;
    bool m_isFailure = false;
    vexCode m_end = VEX_OK;
};

TEST_F(SourceTest, WhatTheAgentHasFoundIsReplayedTheNextTime) {
    standin::search({person("ann"), person("bob")});
    EXPECT_THAT(search(), ElementsAre("guid-ann", "guid-bob"));
    EXPECT_FALSE(m_replayed);
    EXPECT_THAT(search(), ElementsAre("guid-ann", "guid-bob"));
    EXPECT_TRUE(m_replayed);
    EXPECT_FALSE(m_isFailure);
}

TEST_F(SourceTest, NothingFoundIsReplayedToo) {
    standin::search({});
    EXPECT_THAT(search(), IsEmpty());
    EXPECT_THAT(search(), IsEmpty());
    EXPECT_TRUE(m_replayed);
}

TEST_F(SourceTest, ARequestThatIsNotCacheableIsAskedForAnew) {
    m_request.cacheable = false;
    for (int time = 0; time < 2; ++time) {
        standin::search({person("ann")});
        EXPECT_THAT(search(), ElementsAre("guid-ann"));
        EXPECT_FALSE(m_replayed);
    }
}

TEST_F(SourceTest, AnAgentSearchThatBreaksOffIsAFailureAndNotStored) {
    standin::search({person("ann")}, VEX_BROKEN_SESSION);
    EXPECT_THAT(search(), ElementsAre("guid-ann"));
    EXPECT_EQ(m_end, VEX_BROKEN_SESSION);
    EXPECT_TRUE(m_isFailure);
    search();
    EXPECT_FALSE(m_replayed);
}

// A listed object that is gone is none that is missing.
TEST_F(SourceTest, OfAListOnlyALookUpThatFailsIsAFailure) {
    const struct {
        vexCode code;
        bool isFailure;
    } cases[] = {{VEX_OBJECT_GONE, false}, {VEX_NO_SUCH_OBJECT, false}, {VEX_BROKEN_SESSION, true}};
    for (const auto& one : cases) {
        SearchCacheManager::GetCacheManager()->putList(m_request.key,
                                                       std::make_shared<GuidList>(GuidList{"guid-ann"}));
        standin::answer("vexLookupObjectByGuid", one.code);
        EXPECT_THAT(search(), IsEmpty());
        EXPECT_TRUE(m_replayed);
        EXPECT_EQ(m_isFailure, one.isFailure) << one.code;
    }
}

TEST_F(SourceTest, APageOfAnotherSearchKeepsTheListFromTheCache) {
    for (const bool same : {true, false}) {
        standin::search({person("ann")});
        SearchSource first;
        first.open();
        m_request.key = same ? "same" : "first";
        first.begin(m_request);
        first.ask(m_request, SLAP_NO_LIMIT, 1);
        SearchSource second;
        second.resume(first.handle());
        EXPECT_TRUE(second.isResumed());
        if (!same) m_request.key = "second";
        second.goOn(m_request);
        EXPECT_EQ(second.handle()->storable, same);
    }
}

TEST_F(SourceTest, ItsSessionIsItsOwnUntilTheOpenSearchHasIt) {
    SearchSource source;
    EXPECT_EQ(source.session(), nullptr);
    source.open();
    vexSession* const own = source.session();
    EXPECT_NE(own, nullptr);
    source.begin(m_request);
    EXPECT_EQ(source.session(), own);
    standin::search({});
    source.ask(m_request, SLAP_NO_LIMIT, 0);
    EXPECT_EQ(source.session(), own);
    EXPECT_EQ(source.handle()->session(), own);
}

TEST_F(SourceTest, ASessionWithoutASearchIsClosed) {
    SearchSource source;
    source.open();
    source.close();
    EXPECT_EQ(source.session(), nullptr);
    EXPECT_THAT(standin::requests().back(), testing::StartsWith("vexSessionClose("));
}

TEST_F(SourceTest, TheSearchOfAConnectionThatHasARegisteredOneIsKept) {
    m_handles.setSearchHandle(m_connection.connection()->c_connid, std::make_shared<LdapSearchHandle>());
    standin::search({person("ann")});
    search();
    const auto closesOne = testing::Contains(testing::StartsWith("vexSessionClose("));
    EXPECT_THAT(standin::requests(), testing::Not(closesOne));
    m_handles.delSearchHandle(m_connection.connection()->c_connid);
    EXPECT_THAT(standin::requests(), closesOne);
}

}  // namespace
