// SPDX-License-Identifier: Apache-2.0
// The search handler against a scripted agent: which calls it makes, and what the
// client gets.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <stdexcept>
#include <thread>

#include "backend/base/settings.h"
#include "search/fixture_testing.h"
#include "search/search_testing.h"
#include "tests/standin/captured.h"
#include "vorn/logger.h"
#include "vorn/settings.h"
#include "vorn/temporary_folder_testing.h"
#include "vorn/thread.h"

#include "tests/standin/slapd_standin.h"

namespace {

using searchtest::person;
using searchtest::Request;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class SearchTest : public searchtest::Fixture {};

// --------------------------------------------------------- turns at the agent

// One request may wait for the agent, and does: what others get meanwhile.
TEST_F(SearchTest, WhileAllTurnsAreTakenOnlyWhatNeedsNoAgentIsAnswered) {
    vorn::Thread::SetThreadsActive(true);
    connection_pool_max = 2;
    useCache();
    standin::search({person("ann")});
    m_client.search(Request{});  // cached from here on
    searchtest::Client other(2);
    std::vector<standin::Sent> cached;
    std::vector<standin::Sent> refused;
    Request uncached;
    uncached.value = "bob";
    standin::onCall("vexLdapSearchOpen", [&] {
        standin::onCall("vexLdapSearchOpen", nullptr);
        cached = other.search(Request{});
        refused = other.search(uncached);
    });
    const auto sent = m_client.search(uncached);
    EXPECT_EQ(sent.back().code, LDAP_NO_SUCH_OBJECT) << "who had the turn is answered";
    ASSERT_EQ(cached.size(), 2U);
    EXPECT_THAT(cached[0].text, HasSubstr("CN=ann"));
    ASSERT_EQ(refused.size(), 2U) << "as with every failure, the result comes twice";
    for (const auto& result : refused) {
        EXPECT_EQ(result.code, LDAP_BUSY);
        EXPECT_EQ(result.text, "vex dirgate: too many requests wait for the agent");
    }
    EXPECT_EQ(other.search(uncached).back().code, LDAP_NO_SUCH_OBJECT) << "the turn is free again";
}

// It has been answered in part, and must not look whole.
TEST_F(SearchTest, WithoutATurnForItsNextBatchASearchIsBusyToo) {
    connection_pool_max = 2;
    standin::searchFinds({{person("ann"), person("bob")}, VEX_END_OF_RESULTS, -1, 0});
    searchtest::Client other(2);
    std::vector<standin::Sent> inMidway;
    Request another;
    another.value = "bob";
    int batches = 0;
    standin::onCall("vexLdapSearchNext", [&] {
        if (++batches != 1) return;
        standin::searchFinds({{person("cid")}, VEX_END_OF_RESULTS, -1, 0});
        standin::onCall("vexLdapSearchOpen", nullptr);
        inMidway = other.search(another);
    });
    EXPECT_EQ(m_client.search(Request{}).back().code, LDAP_SUCCESS);
    ASSERT_EQ(inMidway.size(), 2U);
    EXPECT_EQ(inMidway[0].code, LDAP_BUSY);
}

// ------------------------------------------------------------- the plain way

TEST_F(SearchTest, APlainSearchOpensAsksSendsAndCloses) {
    standin::search({person("ann")});
    Request request;
    request.attributes = {"mail"};
    const auto sent = m_client.search(request);
    EXPECT_THAT(
        standin::requests(),
        ElementsAre(
            "vexSessionOpen(1, 21)", "vexSetOption(session1, 64, 0)",
            R"~(vexLdapSearchOpen(session1, "", "(uid=ann)", "dc=example,dc=com", ["mail"], 2, -1, 0))~",
            "vexLdapSearchNext(search1)", "vexLdapSearchNext(search1)", "vexLdapSearchClose(search1)",
            "vexSessionClose(session1)"));
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_THAT(sent[0].text, HasSubstr("CN=ann,DC=example,DC=com"));
    EXPECT_THAT(sent[0].attributes, ElementsAre("mail"));
    EXPECT_EQ(sent[1].code, LDAP_SUCCESS);
}

TEST_F(SearchTest, WithAMapTheZonesViewIsAskedForOnTheNullSessionAndOnTheOpenOne) {
    useMap("posixAccount = User\nposixAccount.uid = sAMAccountName\n");
    standin::search({person("ann")});
    Request request;
    request.attribute = "objectClass";
    request.value = "posixAccount";
    request.attributes = {"uid"};
    EXPECT_EQ(m_client.search(request).back().code, LDAP_SUCCESS);
    EXPECT_THAT(standin::requests(),
                ElementsAre("vexSetOption(null, 4, 1)", "vexSessionOpen(1, 21)",
                            "vexSetOption(session1, 4, 1)", "vexSetOption(session1, 64, 1)",
                            R"~(vexLdapSearchOpen(session1, "", "(objectClass=User)", "dc=example,dc=com", )~"
                            R"~(["sAMAccountName","_objectCategory","_nssEntryInvalid"], 2, -1, 0))~",
                            "vexLdapSearchNext(search1)", "vexLdapSearchNext(search1)",
                            "vexLdapSearchClose(search1)", "vexSessionClose(session1)"));
}

TEST_F(SearchTest, AMapWithoutEntriesIsLikeNoMap) {
    useMap("");
    standin::search({person("ann")});
    m_client.search(Request{});
    EXPECT_EQ(standin::requests().at(0), "vexSessionOpen(1, 21)");
    EXPECT_EQ(standin::requests().at(1), "vexSetOption(session1, 64, 0)");
}

TEST_F(SearchTest, WithoutAttributesAllOfTheEntryAreSent) {
    standin::search({person("ann")});
    const auto sent = m_client.search(Request{});
    EXPECT_THAT(sent[0].attributes, IsEmpty());
    EXPECT_THAT(standin::requests().at(2), HasSubstr(R"~("dc=example,dc=com", [], 2, -1, 0)~"));
}

TEST_F(SearchTest, ASearchThatMatchesNothingEndsWithNoSuchObject) {
    const auto sent = m_client.search(Request{});
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].code, LDAP_NO_SUCH_OBJECT);
    EXPECT_FALSE(sent[0].hasText);
}

TEST_F(SearchTest, ABaseWithANulFindsNothingAndIsNotAskedFor) {
    Request request;
    request.base = std::string("dc=example,dc=com\0,dc=x", 24);
    const auto sent = m_client.search(request);
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].code, LDAP_NO_SUCH_OBJECT);
    EXPECT_FALSE(sent[0].hasText);
    EXPECT_THAT(standin::requests(), IsEmpty());
}

TEST_F(SearchTest, AnObjectThatCarriesTheInvalidMarkIsNeverReturnedWhateverTheValue) {
    auto marked = person("ann");
    marked.push_back({"_nssEntryInvalid", {"FALSE"}});
    standin::search({marked, person("bob")});
    const auto sent = m_client.search(Request{});
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_THAT(sent[0].text, HasSubstr("CN=bob"));
}

TEST_F(SearchTest, AnObjectWhoseLdifIsNoEntryIsSkipped) {
    const standin::CapturedLog log;
    standin::rejectEntriesWith("CN=ann");
    standin::search({person("ann"), person("bob")});
    const auto sent = m_client.search(Request{});
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_THAT(sent[0].text, HasSubstr("CN=bob"));
    EXPECT_EQ(sent[1].code, LDAP_SUCCESS);
    EXPECT_THAT(log.records(), testing::Contains(HasSubstr("Skipping object, invalid ldif dn: CN=ann")));
}

// slapd keeps some of what it took for it, each time.
TEST_F(SearchTest, AnObjectWhoseLdifIsNoEntryIsGivenToSlapdOnceAndToldEachTime) {
    const standin::CapturedLog log;
    standin::rejectEntriesWith("CN=ann");
    for (int time = 1; time <= 3; ++time) {
        standin::search({person("ann"), person("bob")});
        const auto sent = m_client.search(Request{});
        ASSERT_EQ(sent.size(), 2U);
        EXPECT_THAT(sent[0].text, HasSubstr("CN=bob"));
        EXPECT_EQ(standin::parsedTexts(), time + 1) << "ann once, bob each time";
        const auto records = log.records();
        EXPECT_EQ(std::count_if(records.begin(), records.end(),
                                [](const std::string& line) {
                                    return line.find("Skipping object, invalid ldif dn: CN=ann") !=
                                           std::string::npos;
                                }),
                  time);
    }
}

TEST_F(SearchTest, AnObjectThatHasChangedIsGivenToSlapdAgain) {
    standin::rejectEntriesWith("right@");
    auto ann = person("ann");
    ann.push_back({"info", {"wright@"}});
    standin::search({ann});
    EXPECT_EQ(m_client.search(Request{}).size(), 1U);
    ann.back() = {"info", {"left@"}};
    standin::search({ann});
    EXPECT_EQ(m_client.search(Request{}).size(), 2U);
    EXPECT_EQ(standin::parsedTexts(), 2);
}

TEST_F(SearchTest, TheLinesOfASearchAreLogged) {
    const standin::CapturedLog log;
    standin::search({person("ann")});
    Request request;
    request.attributes = {"mail", "1.1"};
    m_client.search(request);
    EXPECT_TRUE(log.has("vex search start with filterstr: (uid=ann)"));
    EXPECT_TRUE(log.has("vex search after translation filter = (uid=ann)"));
    EXPECT_TRUE(log.has("vex search using base: dc=example,dc=com"));
    EXPECT_TRUE(log.has("vex search scope = 2"));
    EXPECT_TRUE(log.has("new attrs = mail _dn "));
    EXPECT_THAT(log.records(),
                testing::Contains(HasSubstr(
                    "vex search num attrs = 2, req_dn = 'dc=example,dc=com', filter = (uid=ann),")));
    EXPECT_TRUE(log.has("old attrs = mail 1.1 ,"));
    EXPECT_TRUE(log.has("vex search complete on connection: 1"));
    EXPECT_THAT(log.records(), testing::Contains(HasSubstr("After translation: out_ldif = ")));
}

// The cache takes them at the first search, each in its place.
TEST_F(SearchTest, TheFirstSearchGivesTheCacheItsSettings) {
    vorn::Thread::SetThreadsActive(true);
    gCacheEnabled = true;
    gCacheMaxLists = 11, gCacheMaxObjects = 22, gCacheTTL = 33, gCacheNegTTL = 44, gLogInterval = 55;
    gCacheHashLoadFactor = 0.25F;
    const std::uint64_t usual = std::exchange(gCacheMaxBytes, 987654321);
    const standin::CapturedLog log;
    m_client.search(Request{});
    gCacheMaxBytes = usual;
    EXPECT_THAT(SearchCacheManager::GetCacheManager()->getStateInfo(), HasSubstr(", max bytes: 987654321, "));
    gCacheMaxLists = 12;
    m_client.search(Request{});
    gCacheMaxLists = 100, gCacheMaxObjects = 3000, gCacheTTL = 3600, gCacheNegTTL = 300, gLogInterval = 0;
    gCacheHashLoadFactor = 1.3F;
    EXPECT_EQ(log.count("Init memory cache successfully. max lists: 11, max objects: 22, ttl: 33, "
                        "negative ttl: 44, log interval: 55, list cache bucket number: 53, object cache "
                        "bucket number: 97"),
              1);
    EXPECT_THAT(log.records(), testing::Not(testing::Contains(HasSubstr("max lists: 12"))));
}

TEST_F(SearchTest, TheCachesStatisticsFollowTheLastLineOfASearch) {
    vorn::Thread::SetThreadsActive(true);
    useCache();
    SearchCacheManager* cache = SearchCacheManager::GetCacheManager();
    cache->init(true, 100, 3000, 3600, 300, 1, 1.3F);
    const std::time_t start = std::time(nullptr);
    while (std::time(nullptr) == start) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    standin::search({person("ann")});
    const standin::CapturedLog log;
    m_client.search(Request{});
    const std::vector<std::string> records = log.records();
    const auto last = std::find_if(records.begin(), records.end(), [](const std::string& record) {
        return record.ends_with("vex search complete on connection: 1");
    });
    ASSERT_GE(records.end() - last, 4);
    EXPECT_THAT(last[1], testing::EndsWith(" cache hits: 0, negHits: 0, misses: 1, expires: 0, overflows: 0, "
                                           "cloneErrs: 0"));
    EXPECT_THAT(last[2], testing::HasSubstr(" cache bytes: "));
    EXPECT_THAT(last[3], testing::EndsWith(" Put GUID list to cache successfully."));
}

// -------------------------------------------------------------------- limits

TEST_F(SearchTest, ASizeLimitOfNGivesNEntriesAndThenTheResultTwice) {
    standin::search({person("a"), person("b"), person("c")});
    Request request;
    request.sizeLimit = 2;
    const auto sent = m_client.search(request);
    ASSERT_EQ(sent.size(), 4U);
    EXPECT_TRUE(sent[1].isEntry);
    EXPECT_EQ(sent[2].code, LDAP_SIZELIMIT_EXCEEDED);
    EXPECT_EQ(sent[3].code, LDAP_SIZELIMIT_EXCEEDED);
    EXPECT_FALSE(sent[2].hasText);
}

TEST_F(SearchTest, ExactlyAsManyObjectsAsTheLimitAreNoExcess) {
    standin::search({person("a"), person("b")});
    Request request;
    request.sizeLimit = 2;
    const auto sent = m_client.search(request);
    ASSERT_EQ(sent.size(), 3U);
    EXPECT_EQ(sent[2].code, LDAP_SUCCESS);
}

TEST_F(SearchTest, TheLimitCountsBeforeTheObjectIsLookedAt) {
    auto marked = person("b");
    marked.push_back({"_nssEntryInvalid", {"TRUE"}});
    standin::search({person("a"), marked});
    Request request;
    request.sizeLimit = 1;
    const auto sent = m_client.search(request);
    ASSERT_EQ(sent.size(), 3U);
    EXPECT_EQ(sent[1].code, LDAP_SIZELIMIT_EXCEEDED) << "though no second entry would have come of it";
}

TEST_F(SearchTest, TheSizeLimitComesBeforeTheDeadlineAndAbandonmentBeforeBoth) {
    Request request;
    request.start = std::time(nullptr) - 10;
    request.timeLimit = 5;
    request.sizeLimit = 0;
    standin::search({person("a")});
    auto sent = m_client.search(request);
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(sent[0].code, LDAP_SIZELIMIT_EXCEEDED);
    EXPECT_EQ(sent[1].code, LDAP_NO_SUCH_OBJECT);

    request.abandoned = true;
    standin::search({person("a")});
    sent = m_client.search(request);
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].code, LDAP_NO_SUCH_OBJECT);
}

TEST_F(SearchTest, APassedDeadlineEndsWithTimeLimitExceeded) {
    standin::search({person("a")});
    Request request;
    request.start = std::time(nullptr) - 10;
    request.timeLimit = 5;
    const auto sent = m_client.search(request);
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(sent[0].code, LDAP_TIMELIMIT_EXCEEDED);
    EXPECT_FALSE(sent[0].hasText);
    EXPECT_EQ(sent[1].code, LDAP_NO_SUCH_OBJECT) << "nothing was sent, and the ending says so again";
}

TEST_F(SearchTest, AnAbandonedOperationEndsWithoutEntries) {
    standin::search({person("a")});
    Request request;
    request.abandoned = true;
    const auto sent = m_client.search(request);
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].code, LDAP_NO_SUCH_OBJECT);
}

TEST_F(SearchTest, AFailedSendEndsTheSearchWithInsufficientAccessTwice) {
    standin::search({person("a"), person("b")});
    m_client.connection().entriesAnswer(4);
    const standin::CapturedLog log;
    const auto sent = m_client.search(Request{});
    EXPECT_EQ(log.count("send_search_entry Failed, lrc = 4"), 1);
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(sent[0].code, LDAP_INSUFFICIENT_ACCESS);
    EXPECT_EQ(sent[0].text, "send_search_entry Failed, lrc = 4");
    EXPECT_EQ(sent[1].code, LDAP_NO_SUCH_OBJECT) << "nothing was sent, and the ending says so again";
}

// -------------------------------------------------------- the back-end's suffix

TEST_F(SearchTest, TheSuffixItselfIsAnsweredWithTheDomainEntryWhenItPassesTheFilter) {
    Request request;
    request.base = "DC=Example,dc=com";
    request.scope = LDAP_SCOPE_BASE;
    request.attributes = {"dc"};
    const auto sent = m_client.search(request);
    EXPECT_THAT(standin::requests(), ElementsAre("vexSessionOpen(1, 21)", "vexSessionClose(session1)"));
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(sent[0].text, "dn: dc=example,dc=com\nobjectclass: domain\ndc: Example\n");
    EXPECT_THAT(sent[0].attributes, ElementsAre("dc"));
    EXPECT_EQ(sent[1].code, LDAP_SUCCESS);
}

TEST_F(SearchTest, TheSuffixItselfIsNoSuchObjectWhenTheFilterDoesNotMatch) {
    standin::filterAnswers(LDAP_COMPARE_FALSE);
    Request request;
    request.scope = LDAP_SCOPE_BASE;
    const auto sent = m_client.search(request);
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].code, LDAP_NO_SUCH_OBJECT);
}

TEST_F(SearchTest, ADomainEntryThatIsNoEntryIsReportedWithItsText) {
    const standin::CapturedLog log;
    standin::rejectEntriesWith("objectclass: domain");
    Request request;
    request.scope = LDAP_SCOPE_BASE;
    const auto sent = m_client.search(request);
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].code, LDAP_INVALID_SYNTAX);
    EXPECT_EQ(sent[0].text,
              "str2entry Failed, bad ldif: dn: dc=example,dc=com\nobjectclass: domain\ndc: example\n");
    EXPECT_EQ(log.count("str2entry Failed, bad ldif: dn: dc=example,dc=com"), 1);
}

TEST_F(SearchTest, ABaseSearchDropsAnEntryWithAnotherDn) {
    standin::search({person("ann"), person("bob")});
    Request request;
    request.base = "cn=ANN,dc=example,dc=com";
    request.scope = LDAP_SCOPE_BASE;
    const auto sent = m_client.search(request);
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_THAT(sent[0].text, HasSubstr("CN=ann"));
}

// ------------------------------------------------------------- fetch by DN

TEST_F(SearchTest, CnDollarSearchesTheForestForDnsAndFetchesEachObject) {
    standin::search(
        {{{"_dn", {"CN=ann,DC=sub,DC=example,DC=com"}}, {"_GUID", {"g"}}, {"_objectCategory", {"Person"}}}});
    standin::fetch("CN=ann,DC=sub,DC=example,DC=com",
                   {{"_dn", {"CN=ann,DC=sub,DC=example,DC=com"}}, {"mail", {"ann@example.com"}}});
    Request request;
    request.base = "CN=$,dc=example,dc=com";
    request.attributes = {"mail"};
    const standin::CapturedLog log;
    const auto sent = m_client.search(request);
    EXPECT_EQ(log.count("Calling vexLdapFetch with domain = sub.example.com, "
                        "dn = CN=ann,DC=sub,DC=example,DC=com"),
              1);
    EXPECT_EQ(log.count("After translation: out_ldif = "), 2) << "of what was found, and of what was fetched";
    EXPECT_THAT(
        standin::requests(),
        ElementsAre(
            "vexSessionOpen(1, 21)", "vexSetOption(session1, 64, 0)",
            R"~(vexLdapSearchOpen(session1, "$", "(uid=ann)", "dc=example,dc=com", ["1.1"], 2, -1, 0))~",
            "vexLdapSearchNext(search1)",
            R"~(vexLdapFetch(session1, "sub.example.com", "CN=ann,DC=sub,DC=example,DC=com", ["mail"]))~",
            "vexLdapSearchNext(search1)", "vexLdapSearchClose(search1)", "vexSessionClose(session1)"));
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_THAT(sent[0].text, HasSubstr("mail: ann@example.com"));
}

TEST_F(SearchTest, AFetchThatFailsIsReported) {
    standin::search({person("ann")});
    standin::fetchFails("CN=ann,DC=example,DC=com", 6);
    Request request;
    request.base = "cn=$,dc=example,dc=com";
    const auto sent = m_client.search(request);
    EXPECT_EQ(sent[0].code, LDAP_UNAVAILABLE);
    EXPECT_EQ(sent[0].text,
              "vexLdapFetch : Failed to communicate with vexagent due to broken session handle");
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(sent[1].code, LDAP_NO_SUCH_OBJECT) << "nothing was sent, and the ending says so again";
    EXPECT_EQ(sent[1].text, sent[0].text);
}

TEST_F(SearchTest, AFetchedObjectOfWhichNothingCanBeWrittenIsSkippedWithoutAWord) {
    standin::search({person("ann")});
    standin::fetch("CN=ann,DC=example,DC=com", {{"_objectCategory", {"Person"}}});
    Request request;
    request.base = "cn=$,dc=example,dc=com";
    const standin::CapturedLog log;
    const auto sent = m_client.search(request);
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].code, LDAP_NO_SUCH_OBJECT);
    EXPECT_THAT(log.records(), testing::Not(testing::Contains(HasSubstr("Skipping object"))));
}

TEST_F(SearchTest, ADnThatCannotBeReadIsReported) {
    standin::search({{standin::unreadable("_dn", 6), {"_objectCategory", {"Person"}}, {"mail", {"x"}}}});
    Request request;
    request.base = "cn=$";
    const auto sent = m_client.search(request);
    EXPECT_EQ(sent[0].text,
              "vexGetAttributeStr(DN): Failed to communicate with vexagent due to broken session handle");
}

// ---------------------------------------------------------------- failures

TEST_F(SearchTest, ASessionThatCannotBeOpenedIsReported) {
    standin::answer("vexSessionOpen", 6);
    const auto sent = m_client.search(Request{});
    EXPECT_EQ(sent[0].code, LDAP_UNAVAILABLE);
    EXPECT_EQ(sent[0].text,
              "vexSessionOpen: Failed to communicate with vexagent due to broken session handle");
    EXPECT_EQ(sent.size(), 2U) << "the ending sends the result once more";
    EXPECT_EQ(sent[1].code, LDAP_UNAVAILABLE);
}

TEST_F(SearchTest, ASearchThatCannotBeOpenedIsReportedAndItsSessionClosed) {
    standin::answer("vexLdapSearchOpen", 6);
    const auto sent = m_client.search(Request{});
    EXPECT_EQ(sent[0].code, LDAP_UNAVAILABLE);
    EXPECT_EQ(sent[0].text,
              "vexLdapSearch : Failed to communicate with vexagent due to broken session handle");
    EXPECT_EQ(standin::requests().back(), "vexSessionClose(session1)");
}

TEST_F(SearchTest, AnIncompleteSearchEndsAsIfWholeUnlessErrorsAreReported) {
    standin::search({person("ann")}, 6);
    EXPECT_EQ(m_client.search(Request{}).back().code, LDAP_SUCCESS);

    gSearchReportErrors = true;
    standin::search({person("ann")}, 6);
    const auto sent = m_client.search(Request{});
    ASSERT_EQ(sent.size(), 3U);
    EXPECT_EQ(sent[1].code, LDAP_UNAVAILABLE);
    EXPECT_EQ(sent[1].text,
              "vexLdapSearch : Failed to communicate with vexagent due to broken session handle");
    EXPECT_EQ(sent[2].code, LDAP_UNAVAILABLE);
}

TEST_F(SearchTest, AFilterThatTheAgentCannotExpressIsRejected) {
    Request request;
    request.attribute = "~approximate";
    const standin::CapturedLog log;
    const auto sent = m_client.search(request);
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].code, LDAP_INVALID_SYNTAX);
    EXPECT_EQ(sent[0].text, "vex dirgate: invalid search filter");
    EXPECT_THAT(standin::requests(), IsEmpty());
    EXPECT_EQ(log.count("filter_as_string failed: "), 1);
    EXPECT_THAT(log.records(), testing::Not(testing::Contains(HasSubstr("vex search start"))));
}

// Once for the line that tells of the search, read or not, and once for the agent.
TEST_F(SearchTest, AFilterThatTheAgentCannotExpressIsAnErrorTwiceWhoeverListens) {
    for (const int level : {vorn::Logger::kInfo, vorn::Logger::kNothing}) {
        const standin::CapturedLog log(level);
        const standin::CapturedStderr captured;
        Request request;
        request.attribute = "~approximate";
        m_client.search(request);
        EXPECT_EQ(captured.text(),
                  "dirgate ERROR: Unknown choice in filter: 168\n"
                  "dirgate ERROR: Unknown choice in filter: 168\n")
            << "level " << level;
    }
}

TEST_F(SearchTest, AnUnexpectedExceptionIsReportedAndTheHookAnswersOne) {
    standin::onCall("vexLdapSearchOpen", [] { throw std::runtime_error("out of cheese"); });
    int answer = 0;
    const auto sent = m_client.search(Request{}, &answer);
    EXPECT_EQ(answer, 1);
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].code, LDAP_OTHER);
    EXPECT_EQ(sent[0].text, "out of cheese");
}

// ----------------------------------------------------------------- netgroups

TEST_F(SearchTest, NetgroupsOfTheZoneAreAskedForInItsDomainAndUntyped) {
    const vorn::test::TemporaryFolder folder;
    setenv("ZANTHE_CONF", folder.write("host", "domain.name = a.b\nzone.dn = CN=z,DC=c,DC=b\n").c_str(), 1);
    vorn::Props(true, true);
    gNetgroupUseRfc2307 = true;
    useMap("nisNetgroup = nisNetgroup\nnisNetgroup.cn = name\n");
    Request request;
    request.base = "dc=A,dc=b";
    request.attribute = "objectClass";
    request.value = "nisNetgroup";
    request.attributes = {"cn"};
    m_client.search(request);
    EXPECT_THAT(standin::requests(), testing::Contains("vexSetOption(session1, 64, 0)"));
    EXPECT_THAT(standin::requests(),
                testing::Contains(R"~(vexLdapSearchOpen(session1, "c.b", "(objectClass=nisNetgroup)", )~"
                                  R"~("CN=netgroup,CN=Rfc2307NisMaps,CN=z,DC=c,DC=b", ["cn"], 2, -1, 0))~"));

    request.base = "dc=else,dc=where";
    standin::forgetCalls();
    const auto sent = m_client.search(request);
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].code, LDAP_OTHER);
    EXPECT_EQ(
        sent[0].text,
        "vex dirgate: the specified search base is different from the currently joined domain dn or the "
        "currently joined zone domain dn");
    EXPECT_THAT(standin::requests(), ElementsAre("vexSetOption(null, 4, 1)"));
}

// -------------------------------------------------------------- fetch by uid

TEST_F(SearchTest, ABaseOfAUidBecomesAFilterAndSkipsTheBaseTest) {
    gFetchByDnUID = true;
    useMap("posixAccount = User\nposixAccount.uid = sAMAccountName\n");
    standin::search({person("jdoe")});
    Request request;
    request.base = "uid=jdoe,ou=people,dc=a";
    request.scope = LDAP_SCOPE_BASE;
    request.attribute = "objectClass";
    request.value = nullptr;
    const auto sent = m_client.search(request);
    EXPECT_THAT(
        standin::requests(),
        testing::Contains(HasSubstr(
            R"~("(&(objectClass=User)(sAMAccountName=jdoe))", "uid=jdoe,ou=people,dc=a", [], 0, -1, 0)~")));
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_TRUE(sent[0].isEntry);
}

}  // namespace
