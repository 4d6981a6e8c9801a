// SPDX-License-Identifier: Apache-2.0
// Searches and the search cache, against a scripted agent: what is replayed, what
// is asked again, what is stored.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <thread>

#include "backend/base/settings.h"
#include "search/fixture_testing.h"
#include "search/search_testing.h"
#include "tests/standin/captured.h"
#include "vorn/thread.h"

#include "tests/standin/slapd_standin.h"

namespace {

using searchtest::cookieOf;
using searchtest::Paged;
using searchtest::person;
using searchtest::Request;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr char kKey[] = "(uid=ann)dc=example,dc=com2";
constexpr char kAgentSearch[] =
    R"~(vexLdapSearchOpen(session1, "", "(uid=ann)", "dc=example,dc=com", null, 2, -1, 0))~";

class ReplayTest : public searchtest::Fixture {
  protected:
    ReplayTest() {
        vorn::Thread::SetThreadsActive(true);
        useCache();
    }
    ~ReplayTest() override {
        gCacheMaxObjects = 3000;
        gCacheTTL = 3600;
        gCacheNegTTL = 300;
    }

    // A search for one attribute that the agent supports.
    std::vector<standin::Sent> search(Request request = {}) {
        if (request.attributes.empty()) request.attributes = {"mail"};
        return m_client.search(request);
    }
    // The requests of such a search, its session called session1.
    std::vector<std::string> requestsOf(const Request& request = {}) {
        standin::forgetCalls();
        search(request);
        return requests();
    }
    // The requests so far, the first session of them called session1.
    static std::vector<std::string> requests() {
        std::vector<std::string> lines = standin::requests();
        for (std::string& line : lines) {
            for (const char* kind : {"session", "search"}) {
                const std::size_t at = line.find(std::string("(") + kind);
                if (at == std::string::npos) continue;
                const std::size_t number = at + 1 + std::string_view(kind).size();
                line.replace(number, line.find_first_not_of("0123456789", number) - number, "1");
            }
        }
        return lines;
    }
    static bool asksTheAgent(const std::vector<std::string>& lines) {
        return testing::Matches(Contains(HasSubstr("vexLdapSearchOpen")))(lines);
    }
    // Puts a list into the cache as a search would have.
    static void remember(const GuidList& guids, const std::string& key = kKey) {
        cache().putList(key, std::make_shared<GuidList>(guids.begin(), guids.end()));
    }
    static SearchCacheManager& cache() {
        SearchCacheManager* manager = SearchCacheManager::GetCacheManager();
        manager->init(gCacheEnabled, static_cast<unsigned long>(gCacheMaxLists),
                      static_cast<unsigned long>(gCacheMaxObjects), static_cast<unsigned long>(gCacheTTL),
                      static_cast<unsigned long>(gCacheNegTTL), 0, gCacheHashLoadFactor);
        return *manager;
    }
    // 0 hit, 1 negative hit, 2 miss.
    static int cached(const std::string& key = kKey) {
        std::shared_ptr<GuidList> list;
        return cache().getList(key, list);
    }
    static void waitForTheNextSecond() {
        const std::time_t start = std::time(nullptr);
        while (std::time(nullptr) == start) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    // The names of the entries and the codes of the results: "ann bob 0".
    static std::string shape(const std::vector<standin::Sent>& sent) {
        std::string text;
        for (const auto& one : sent) {
            if (!text.empty()) text += ' ';
            text += one.isEntry ? one.text.substr(7, 3) : std::to_string(one.code);
        }
        return text;
    }
};

// ------------------------------------------------------------------- replays

TEST_F(ReplayTest, TheFirstSearchAsksForAllAttributesAndTheSecondAsksNothing) {
    standin::search({person("ann"), person("bob")});
    const auto first = search();
    EXPECT_THAT(requests(), ElementsAre("vexSessionOpen(1, 21)", "vexSetOption(session1, 64, 0)",
                                        kAgentSearch, "vexLdapSearchNext(search1)",
                                        "vexLdapSearchNext(search1)", "vexLdapSearchNext(search1)",
                                        "vexLdapSearchClose(search1)", "vexSessionClose(session1)"));
    standin::forgetCalls();
    const auto second = search();
    EXPECT_THAT(requests(), ElementsAre("vexSessionOpen(1, 21)", "vexSetOption(session1, 64, 0)",
                                        "vexSessionClose(session1)"));
    EXPECT_EQ(shape(first), "ann bob 0");
    EXPECT_EQ(shape(second), "ann bob 0");
    EXPECT_EQ(second[0].text, first[0].text);
    EXPECT_EQ(second[1].text, first[1].text);
}

TEST_F(ReplayTest, TheLinesOfASearchThatIsStoredAndOfItsReplay) {
    standin::search({person("ann")});
    {
        const standin::CapturedLog log;
        search();
        EXPECT_EQ(log.count("Get object(guid-ann) from vexagent and save it to cache succesfully."), 1);
        EXPECT_EQ(log.count("Put GUID list to cache successfully."), 1);
        EXPECT_THAT(log.records(), Not(Contains(HasSubstr("in memory cache"))));
    }
    const standin::CapturedLog log;
    search();
    EXPECT_EQ(log.count("Successfully find search result in memory cache. req_dn = 'dc=example,dc=com', "
                        "filter = (uid=ann), scope = 2"),
              1);
    EXPECT_EQ(log.count("Find object(guid-ann) from cache successfully."), 1);
    EXPECT_FALSE(log.has("Put GUID list to cache successfully."));
}

TEST_F(ReplayTest, AListServesOtherAttributesAndAnotherSpelling) {
    standin::search({person("ann")});
    search();
    Request request;
    request.base = "DC=Example,DC=com";
    request.attribute = "UID";
    request.attributes = {"sAMAccountName"};
    standin::forgetCalls();
    EXPECT_EQ(shape(search(request)), "ann 0");
    EXPECT_FALSE(asksTheAgent(requests()));
}

TEST_F(ReplayTest, AnotherScopeIsAnotherSearch) {
    standin::search({person("ann")});
    search();
    Request request;
    request.scope = LDAP_SCOPE_ONELEVEL;
    EXPECT_TRUE(asksTheAgent(requestsOf(request)));
}

TEST_F(ReplayTest, SizeLimitsHoldInAReplay) {
    standin::search({person("ann"), person("bob")});
    search();
    Request request;
    request.sizeLimit = 1;
    EXPECT_EQ(shape(search(request)), "ann 4 4");
}

TEST_F(ReplayTest, AListPastItsLifetimeIsAskedForAgain) {
    gCacheTTL = 0;
    standin::search({person("ann")});
    search();
    waitForTheNextSecond();
    EXPECT_TRUE(asksTheAgent(requestsOf()));
}

// The agent tells ANN from ann, and the cache's keys do not.
TEST_F(ReplayTest, ASpellingThatFindsNothingTakesNobodysGroupsAway) {
    Request groups;
    groups.attribute = "memberUid";
    const auto find = [&](const char* name) {
        groups.value = name;
        return shape(search(groups));
    };
    standin::searchFor({"(memberUid=ann)", {}, {}, {}}, {{person("dev")}});
    EXPECT_EQ(find("ANN"), "32");
    EXPECT_EQ(cached("(memberuid=ann)dc=example,dc=com2"), SearchCacheManager::kMiss);
    EXPECT_EQ(find("ann"), "dev 0");
    EXPECT_EQ(cached("(memberuid=ann)dc=example,dc=com2"), SearchCacheManager::kHit);
    EXPECT_EQ(find("ANN"), "32") << "nor is it given somebody's";
    standin::forgetCalls();
    EXPECT_EQ(find("ann"), "dev 0");
    EXPECT_FALSE(asksTheAgent(requests()));
}

// ------------------------------------------------------------------ look-ups

TEST_F(ReplayTest, ObjectsThatWereEvictedAreLookedUpByGuidAndKeptAgain) {
    gCacheMaxObjects = 1;
    standin::search({person("ann"), person("bob")});
    standin::lookup("guid-ann", person("ann"));
    standin::lookup("guid-bob", person("bob"));
    search();
    const standin::CapturedLog log;
    standin::forgetCalls();
    EXPECT_EQ(shape(search()), "ann bob 0");
    EXPECT_THAT(requests(),
                ElementsAre("vexSessionOpen(1, 21)", "vexSetOption(session1, 64, 0)",
                            R"~(vexLookupObjectByGuid(session1, "guid-ann"))~",
                            R"~(vexLookupObjectByGuid(session1, "guid-bob"))~", "vexSessionClose(session1)"));
    EXPECT_EQ(log.count("Fetch object(guid-ann) from vexagent by GUID successfully."), 1);
    EXPECT_EQ(log.count("Fetch object(guid-bob) from vexagent by GUID successfully."), 1);
}

TEST_F(ReplayTest, AnObjectThatWasLookedUpIsCached) {
    remember({"guid-ann"});
    standin::lookup("guid-ann", person("ann"));
    EXPECT_THAT(requestsOf(), Contains(HasSubstr("vexLookupObjectByGuid")));
    EXPECT_THAT(requestsOf(), Not(Contains(HasSubstr("vexLookupObjectByGuid"))));
}

// ------------------------------------------------------- look-ups told ahead

class ReplayTellsAhead : public ReplayTest {
  protected:
    ReplayTellsAhead() { standin::recordHints(true); }

    static std::string name(int number) { return std::to_string(100 + number); }
    // A list of so many people that is in the cache, and its objects at the agent.
    static void rememberPeople(int count) {
        GuidList guids;
        for (int i = 0; i < count; ++i) {
            guids.push_back("guid-" + name(i));
            standin::lookup(guids.back(), person(name(i)));
        }
        remember(guids);
    }
    static std::string hint(const std::vector<int>& numbers) {
        std::string texts;
        for (const int number : numbers)
            texts += (texts.empty() ? "\"guid-" : ",\"guid-") + name(number) + "\"";
        return "vexExpectLookups(session1, [" + texts + "])";
    }
    static std::string lookUp(int number) {
        return "vexLookupObjectByGuid(session1, \"guid-" + name(number) + "\")";
    }
    static std::vector<int> range(int from, int to) {
        std::vector<int> numbers;
        for (; from < to; ++from) numbers.push_back(from);
        return numbers;
    }
    // The hints and the look-ups of the requests.
    static std::vector<std::string> told(std::vector<std::string> lines) {
        std::erase_if(lines, [](const std::string& line) {
            return line.find("ExpectLookups") == line.npos && line.find("LookupObject") == line.npos;
        });
        return lines;
    }
};

TEST_F(ReplayTellsAhead, WhichObjectsItWillLookUpAndLooksThemUpOneByOne) {
    rememberPeople(3);
    EXPECT_THAT(told(requestsOf()), ElementsAre(hint({0, 1, 2}), lookUp(0), lookUp(1), lookUp(2)));
    EXPECT_THAT(told(requestsOf()), testing::IsEmpty()) << "all are cached";
}

TEST_F(ReplayTellsAhead, NothingOfWhatIsCached) {
    rememberPeople(6);
    for (const int cached : {0, 2, 3}) {
        const vex::UniqueObject object(standin::makeObject(person(name(cached))));
        cache().putObj(("guid-" + name(cached)).c_str(), object.get());
    }
    EXPECT_THAT(told(requestsOf()), ElementsAre(hint({1, 4, 5}), lookUp(1), lookUp(4), lookUp(5)));
}

TEST_F(ReplayTellsAhead, NothingWhereOneObjectOnlyIsMissing) {
    rememberPeople(1);
    EXPECT_THAT(told(requestsOf()), ElementsAre(lookUp(0)));
}

TEST_F(ReplayTellsAhead, AtMostSoManyAtOnce) {
    rememberPeople(VEX_MOST_AHEAD + 2);
    const auto lines = told(requestsOf());
    ASSERT_EQ(lines.size(), VEX_MOST_AHEAD + 2u + 2u);
    EXPECT_EQ(lines[0], hint(range(0, VEX_MOST_AHEAD)));
    EXPECT_EQ(lines[VEX_MOST_AHEAD], lookUp(VEX_MOST_AHEAD - 1));
    EXPECT_EQ(lines[VEX_MOST_AHEAD + 1], hint({VEX_MOST_AHEAD, VEX_MOST_AHEAD + 1}));
}

TEST_F(ReplayTellsAhead, NoMoreThanThePageTakes) {
    rememberPeople(6);
    const Paged first{2, ""};
    Request request;
    request.paged = &first;
    const auto sent = search(request);
    EXPECT_THAT(told(requests()), ElementsAre(hint({0, 1, 2}), lookUp(0), lookUp(1), lookUp(2)));
    const Paged second{2, cookieOf(sent.back())};
    request.paged = &second;
    EXPECT_THAT(told(requestsOf(request)), ElementsAre(hint({3, 4}), lookUp(3), lookUp(4)));
}

TEST_F(ReplayTellsAhead, NoMoreThanTheSizeLimitTakes) {
    rememberPeople(6);
    Request request;
    request.sizeLimit = 1;
    EXPECT_THAT(told(requestsOf(request)), ElementsAre(hint({0, 1}), lookUp(0), lookUp(1)));
}

TEST_F(ReplayTellsAhead, AnObjectThatLeftTheCacheMeanwhileIsToldWithWhatFollowsIt) {
    gCacheMaxObjects = 1;
    rememberPeople(3);
    const vex::UniqueObject object(standin::makeObject(person(name(1))));
    cache().putObj(("guid-" + name(1)).c_str(), object.get());
    EXPECT_THAT(told(requestsOf()), ElementsAre(hint({0, 2}), lookUp(0), hint({1, 2}), lookUp(1), lookUp(2)));
}

TEST_F(ReplayTellsAhead, AHintThatFailsChangesNothing) {
    rememberPeople(3);
    standin::answerAlways("vexExpectLookups", VEX_NO_MEMORY);
    EXPECT_EQ(shape(search()), "100 101 102 0");
}

class ObjectIsGone : public ReplayTest, public testing::WithParamInterface<int> {};

TEST_P(ObjectIsGone, ErasesTheListAndTheNextSearchAsksTheAgent) {
    remember({"guid-ann", "guid-bob", "guid-cid"});
    standin::lookup("guid-ann", person("ann"));
    standin::lookupFails("guid-bob", GetParam());
    {
        const standin::CapturedLog log;
        EXPECT_EQ(shape(search()), "ann 0");
        EXPECT_EQ(log.count("Fetch object(guid-bob) from vexagent by GUID failed. error code: " +
                            std::to_string(GetParam())),
                  1);
        EXPECT_EQ(log.count("Object(guid-bob) not found, force to clean this GUID list cache."), 1);
    }
    EXPECT_THAT(requests(), Not(Contains(HasSubstr("guid-cid")))) << "the replay stopped there";
    EXPECT_EQ(cached(), 2);
    EXPECT_TRUE(asksTheAgent(requestsOf()));
}

TEST_P(ObjectIsGone, IsNoFailureEvenWhereFailuresAreReported) {
    gSearchReportErrors = true;
    remember({"guid-ann", "guid-bob"});
    standin::lookup("guid-ann", person("ann"));
    standin::lookupFails("guid-bob", GetParam());
    EXPECT_EQ(shape(search()), "ann 0");
}

TEST_P(ObjectIsGone, EndsWithNoSuchObjectWhenItWasTheFirst) {
    remember({"guid-ann"});
    standin::lookupFails("guid-ann", GetParam());
    EXPECT_EQ(shape(search()), "32");
}

INSTANTIATE_TEST_SUITE_P(Codes, ObjectIsGone, testing::Values(36, 9), testing::PrintToStringParamName());

TEST_F(ReplayTest, ALookUpThatFailsOtherwiseStopsTheReplayAndKeepsTheList) {
    remember({"guid-ann", "guid-bob", "guid-cid"});
    standin::lookup("guid-ann", person("ann"));
    standin::lookupFails("guid-bob", 8);
    standin::lookup("guid-cid", person("cid"));
    const standin::CapturedLog log;
    EXPECT_EQ(shape(search()), "ann 0");
    EXPECT_EQ(log.count("Fetch object(guid-bob) from vexagent by GUID failed. error code: 8"), 1);
    EXPECT_THAT(log.records(), Not(Contains(HasSubstr("force to clean"))));
    EXPECT_THAT(requests(), Not(Contains(HasSubstr("guid-cid"))));
    EXPECT_EQ(cached(), 0);

    standin::lookup("guid-bob", person("bob"));
    EXPECT_EQ(shape(search()), "ann bob cid 0");
}

TEST_F(ReplayTest, ALookUpThatFailsOtherwiseIsReportedWhereFailuresAre) {
    gSearchReportErrors = true;
    remember({"guid-ann"});
    standin::lookupFails("guid-ann", 8);
    standin::health(0);
    standin::protocolError(2, LDAP_UNWILLING_TO_PERFORM, "not now");
    const auto sent = search();
    EXPECT_EQ(shape(sent), "53 53");
    EXPECT_TRUE(sent[0].text.starts_with("vexLdapSearch :")) << sent[0].text;
    EXPECT_EQ(sent[1].text, sent[0].text);
    EXPECT_EQ(cached(), 0);
}

// ------------------------------------------------------------- negative hits

TEST_F(ReplayTest, ASearchThatFoundNothingIsAnsweredWithoutTheAgentWhileItIsYoung) {
    EXPECT_EQ(shape(search()), "32");
    EXPECT_EQ(cached(), 1);
    const standin::CapturedLog log;
    standin::search({person("ann")});
    standin::forgetCalls();
    EXPECT_EQ(shape(search()), "32");
    EXPECT_THAT(requests(), ElementsAre("vexSessionOpen(1, 21)", "vexSetOption(session1, 64, 0)",
                                        "vexSessionClose(session1)"));
    EXPECT_THAT(log.records(), Not(Contains(HasSubstr("in memory cache")))) << "nothing was found there";
}

TEST_F(ReplayTest, AfterItsLifetimeTheAgentIsAskedAndAPersonCreatedSinceIsFound) {
    gCacheNegTTL = 0;
    search();
    waitForTheNextSecond();
    standin::search({person("ann")});
    standin::forgetCalls();
    EXPECT_EQ(shape(search()), "ann 0");
    EXPECT_TRUE(asksTheAgent(requests()));
    EXPECT_EQ(cached(), 0);
}

TEST_F(ReplayTest, AfterItsLifetimeASearchThatFindsNothingAgainIsRememberedAnew) {
    gCacheNegTTL = 0;
    search();
    waitForTheNextSecond();
    EXPECT_TRUE(cache().negativeExpired(kKey));
    EXPECT_TRUE(asksTheAgent(requestsOf()));
    EXPECT_EQ(cached(), 1);
}

// --------------------------------------------------------- what is not stored

TEST_F(ReplayTest, ASearchThatFailedMidwayStoresNoList) {
    standin::search({person("ann")}, 6);
    EXPECT_EQ(shape(search()), "ann 0");
    EXPECT_EQ(cached(), 2);
}

TEST_F(ReplayTest, ASearchThatFailedMidwayAndWasReportedStoresNoList) {
    gSearchReportErrors = true;
    standin::search({}, 6);
    EXPECT_EQ(search().front().code, LDAP_UNAVAILABLE);
    EXPECT_EQ(cached(), 2) << "nor that nothing was found";
}

TEST_F(ReplayTest, ASearchCutByTheSizeLimitStoresNoList) {
    standin::search({person("ann"), person("bob")});
    Request request;
    request.sizeLimit = 1;
    EXPECT_EQ(shape(search(request)), "ann 4 4");
    EXPECT_EQ(cached(), 2);
}

TEST_F(ReplayTest, ASearchCutByTheTimeLimitStoresNoList) {
    standin::search({person("ann")});
    Request request;
    request.start = std::time(nullptr) - 10;
    request.timeLimit = 5;
    search(request);
    EXPECT_EQ(cached(), 2);
}

TEST_F(ReplayTest, AnAbandonedSearchStoresNoList) {
    standin::search({person("ann")});
    Request request;
    request.abandoned = true;
    search(request);
    EXPECT_EQ(cached(), 2);
}

TEST_F(ReplayTest, ASearchWhoseEntryCouldNotBeSentStoresNoList) {
    standin::search({person("ann")});
    m_client.connection().entriesAnswer(4);
    EXPECT_EQ(search().front().code, LDAP_INSUFFICIENT_ACCESS);
    EXPECT_EQ(cached(), 2);
}

TEST_F(ReplayTest, ASearchThatCouldNotBeOpenedStoresNoList) {
    standin::answer("vexLdapSearchOpen", 6);
    search();
    EXPECT_EQ(cached(), 2);
}

TEST_F(ReplayTest, ObjectsThatAreSkippedAreStillInTheList) {
    auto marked = person("bob");
    marked.push_back({"_nssEntryInvalid", {"TRUE"}});
    standin::search({person("ann"), marked});
    EXPECT_EQ(shape(search()), "ann 0");
    standin::forgetCalls();
    EXPECT_EQ(shape(search()), "ann 0");
    EXPECT_FALSE(asksTheAgent(requests()));
}

TEST_F(ReplayTest, AnAttributeThatTheAgentDoesNotSupportKeepsTheSearchOutOfTheCache) {
    standin::search({person("ann")});
    Request request;
    request.attributes = {"mail", "title"};
    const standin::CapturedLog log;
    EXPECT_EQ(shape(search(request)), "ann 0");
    EXPECT_EQ(log.count("Requested attribute(s) is not supported by vexagent."), 1);
    EXPECT_THAT(requests(), Contains(HasSubstr(R"~(["mail","title"], 2, -1, 0)~")));
    EXPECT_EQ(cached(), 2);

    remember({"guid-bob"});
    EXPECT_TRUE(asksTheAgent(requestsOf(request))) << "nor does it read what is there";
}

TEST_F(ReplayTest, BeforeTheFirstBindNothingIsCached) {
    vexFreeStringSet(gSupportedObjectAttrList.exchange(nullptr));
    standin::search({person("ann")});
    EXPECT_EQ(shape(search()), "ann 0");
    EXPECT_EQ(cached(), 2);
}

// -------------------------------------------------------------------- pages

class PagedReplayTest : public ReplayTest {
  protected:
    // A page for these attributes; the next one of the same search with its cookie.
    std::vector<standin::Sent> page(const std::vector<std::string>& attributes, const char* value = "ann",
                                    int size = 1) {
        const Paged paged{size, m_cookie};
        Request request;
        request.paged = &paged;
        request.attributes = attributes;
        request.value = value;
        auto sent = search(request);
        const auto result =
            std::find_if(sent.begin(), sent.end(), [](const auto& one) { return !one.isEntry; });
        m_cookie = result == sent.end() ? "no result" : cookieOf(*result);
        return sent;
    }
    void searchFindsTwo() { standin::search({person("ann"), person("bob")}); }

    std::string m_cookie;
};

TEST_F(PagedReplayTest, AllPagesOfACacheableSearchMakeItsList) {
    searchFindsTwo();
    EXPECT_EQ(shape(page({"mail"})), "ann 0");
    EXPECT_EQ(cached(), 2) << "not before the end";
    page({"mail"});
    EXPECT_EQ(cached(), 0);
    EXPECT_EQ(shape(search()), "ann bob 0");
}

TEST_F(PagedReplayTest, AListIsReplayedInPages) {
    standin::search({person("ann"), person("bob"), person("cid")});
    search();
    standin::forgetCalls();
    EXPECT_EQ(shape(page({"mail"}, "ann", 2)), "ann bob 0");
    EXPECT_EQ(m_cookie.size(), 24U);
    EXPECT_EQ(shape(page({"mail"}, "ann", 2)), "cid 0 32") << "what was kept for the page does not count";
    EXPECT_EQ(m_cookie, "");
    EXPECT_FALSE(asksTheAgent(requests()));
}

TEST_F(PagedReplayTest, APageWithAnotherFilterKeepsTheSearchOutOfTheCache) {
    searchFindsTwo();
    page({"mail"});
    page({"mail"}, "bob");
    EXPECT_EQ(cached(), 2);
    EXPECT_EQ(cached("(uid=bob)dc=example,dc=com2"), 2);
}

TEST_F(PagedReplayTest, AFirstPageThatMayNotBeCachedKeepsTheSearchOutOfTheCache) {
    searchFindsTwo();
    page({"title"});
    page({"mail"});
    EXPECT_EQ(cached(), 2);
    CachedObject object;
    EXPECT_EQ(cache().getObj("guid-bob", &object), SearchCacheManager::kMiss)
        << "its objects lack attributes";
}

TEST_F(PagedReplayTest, ALaterPageThatMayNotBeCachedKeepsTheSearchOutOfTheCache) {
    searchFindsTwo();
    page({"mail"});
    page({"title"});
    EXPECT_EQ(cached(), 2);
}

// ---------------------------------------------------------------- fetch by DN

TEST_F(ReplayTest, FetchByDnReadsNothingFromTheCache) {
    remember({});  // the plain search is known to find nothing
    standin::search({person("ann")});
    standin::fetch("CN=ann,DC=example,DC=com", person("ann"));
    Request request;
    request.base = "cn=$,dc=example,dc=com";
    EXPECT_EQ(shape(search(request)), "ann 0");
    EXPECT_THAT(requests(), Contains(HasSubstr(R"~(["1.1"], 2, -1, 0)~")));
}

TEST_F(ReplayTest, FetchByDnStoresNothingInTheCache) {
    standin::search({person("ann")});
    standin::fetch("CN=ann,DC=example,DC=com", person("ann"));
    Request request;
    request.base = "cn=$,dc=example,dc=com";
    EXPECT_EQ(shape(search(request)), "ann 0");
    EXPECT_EQ(cached(), 2);
    CachedObject object;
    EXPECT_EQ(cache().getObj("guid-ann", &object), SearchCacheManager::kMiss);
}

}  // namespace
