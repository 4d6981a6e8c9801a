// SPDX-License-Identifier: Apache-2.0
#include "cache/cache_testing.h"

namespace cachetest {
namespace {

using testing::ElementsAre;
using testing::Pointee;

class Lists : public CacheTest {};

TEST_F(Lists, AreHandedOutSharedInTheirOrder) {
    start();
    const auto stored = guids({"g2", "g1", "g2"});
    m_cache->putList("key", stored);
    EXPECT_EQ(list("key"), 0);
    EXPECT_EQ(m_list, stored);
    EXPECT_THAT(m_list, Pointee(ElementsAre("g2", "g1", "g2")));
    EXPECT_EQ(counts(), "1 0 0 0 0 0");
}

TEST_F(Lists, MissWhenTheTableIsEmptyOrTheKeyIsAbsent) {
    start();
    EXPECT_EQ(list("key"), 2);
    m_cache->putList("other", guids({"g"}));
    m_list = guids({"mine"});
    EXPECT_EQ(m_cache->getList("key", m_list), 2);
    EXPECT_THAT(m_list, Pointee(ElementsAre("mine")));
    EXPECT_EQ(counts(), "0 0 2 0 0 0");
}

TEST_F(Lists, KeyIsFilterAndBaseInLowerCaseAndTheScope) {
    EXPECT_EQ(SearchCacheManager::listKey("(CN=A)", "DC=X", 2), "(cn=a)dc=x2");
    start();
    m_cache->putList("(CN=A)", "DC=X", 2, guids({"g"}));
    EXPECT_EQ(list("(cn=a)dc=x2"), 0);
    std::shared_ptr<GuidList> out;
    EXPECT_EQ(m_cache->getList("(cn=A)", "dc=X", 2, out), 0);
    EXPECT_THAT(out, Pointee(ElementsAre("g")));
    EXPECT_EQ(m_cache->getList("(cn=A)", "dc=X", 1, out), 2);
}

TEST_F(Lists, EmptyOnesAreNegativeHitsEvenPastTheirLifetime) {
    start();
    m_cache->putList("none", guids({}));
    m_list = guids({"mine"});
    for (const int age : {0, 300, 301, 1'000'000}) {
        now = 1'000'000 + age;
        EXPECT_EQ(m_cache->getList("none", m_list), 1) << age;
        EXPECT_THAT(m_list, Pointee(ElementsAre("mine")));
    }
    EXPECT_EQ(counts(), "0 4 0 0 0 0");
}

TEST_F(Lists, NegativeEntriesTellWhenTheyArePastTheirLifetime) {
    start();
    m_cache->putList("none", guids({}));
    m_cache->putList("some", guids({"g"}));
    now = 1'000'300;
    EXPECT_FALSE(m_cache->negativeExpired("none"));
    now = 1'000'301;
    EXPECT_TRUE(m_cache->negativeExpired("none"));
    now = 2'000'000;
    EXPECT_FALSE(m_cache->negativeExpired("some"));
    EXPECT_FALSE(m_cache->negativeExpired("absent"));
    EXPECT_EQ(counts(), "0 0 0 0 0 0");
    m_cache->eraseList("none");
    EXPECT_FALSE(m_cache->negativeExpired("none"));
    EXPECT_EQ(list("none"), 2);
}

TEST_F(Lists, LiveUpToTheSecondOfTheirExpiry) {
    start();
    m_cache->putList("key", guids({"g"}));
    now = 1'003'600;
    EXPECT_EQ(list("key"), 0);
    now = 1'003'601;
    EXPECT_EQ(list("key"), 2);
    EXPECT_EQ(list("key"), 2);
    EXPECT_EQ(counts(), "1 0 1 1 0 0");
}

TEST_F(Lists, TakeTheirOwnExpiredObjectsWithThem) {
    start();
    put("old", "old");
    put("others", "others");
    m_cache->putList("key", guids({"old", "absent", "young", "old"}));
    now = 1'003'000;
    put("young", "young");
    now = 1'003'601;
    EXPECT_EQ(list("key"), 2);
    EXPECT_EQ(get("young"), "young");
    EXPECT_EQ(get("old"), "miss");     // a plain miss: it is gone already
    EXPECT_EQ(get("others"), "miss");  // expires only now
    EXPECT_EQ(counts(), "1 0 1 2 0 0");
}

// A clock whose every look is a second later.
std::time_t tickingClock() {
    return now++;
}

TEST_F(Lists, ExpireTogetherWithTheirObjectsByOneLookAtTheClock) {
    start({}, {tickingClock, sleepOn, ""});
    now = 1'000'000;
    m_cache->putList("key", guids({"g"}));  // lives until 1'003'600
    now = 1'000'001;
    put("g", "ann");  // lives until 1'003'601
    now = 1'003'601;
    EXPECT_EQ(list("key"), 2);
    now = 1'003'601;
    EXPECT_EQ(get("g"), "ann");
}

TEST_F(Lists, AreNeitherReplacedNorRefreshed) {
    start();
    const standin::CapturedLog log;
    m_cache->putList("key", guids({"first"}));
    now = 1'003'600;
    m_cache->putList("key", guids({"second"}));
    EXPECT_EQ(list("key"), 0);
    EXPECT_THAT(m_list, Pointee(ElementsAre("first")));
    now = 1'003'601;
    EXPECT_EQ(list("key"), 2);
    EXPECT_EQ(log.count("Put GUID list to cache successfully."), 2);
}

TEST_F(Lists, OneOfAFullTableMakesRoom) {
    start({.maxLists = 1});
    m_cache->putList("a", guids({"g"}));
    EXPECT_EQ(counts(), "0 0 0 0 0 0");
    m_cache->putList("b", guids({"g"}));
    EXPECT_EQ(list("a"), 2);
    EXPECT_EQ(list("b"), 0);
    EXPECT_EQ(counts(), "1 0 1 0 1 0");
}

TEST_F(Lists, StoringAKnownKeyInAFullTableMakesRoomToo) {
    start({.maxLists = 1});
    m_cache->putList("a", guids({"first"}));
    m_cache->putList("a", guids({"second"}));
    EXPECT_EQ(list("a"), 0);
    EXPECT_THAT(m_list, Pointee(ElementsAre("second")));
    EXPECT_EQ(counts(), "1 0 0 0 1 0");
}

TEST_F(Lists, NoCapacityCountsAnOverflowForEachStoreAndHoldsTheLast) {
    start({.maxLists = 0});
    m_cache->putList("a", guids({"g"}));
    EXPECT_EQ(counts(), "0 0 0 0 1 0");
    m_cache->putList("b", guids({"g"}));
    EXPECT_EQ(list("a"), 2);
    EXPECT_EQ(list("b"), 0);
    EXPECT_EQ(counts(), "1 0 1 0 2 0");
}

TEST_F(Lists, ErasingDropsTheEntryAndCountsNothing) {
    start();
    m_cache->eraseList("key");
    m_cache->putList("key", guids({"g"}));
    m_cache->eraseList("absent");
    EXPECT_EQ(list("key"), 0);
    m_cache->eraseList("key");
    EXPECT_EQ(list("key"), 2);
    EXPECT_EQ(counts(), "1 0 1 0 0 0");
}

TEST_F(Lists, OutliveTheirEntryInTheHandsOfAReader) {
    start();
    m_cache->putList("key", guids({"g"}));
    EXPECT_EQ(list("key"), 0);
    m_cache->eraseList("key");
    EXPECT_THAT(m_list, Pointee(ElementsAre("g")));
}

TEST_F(Lists, ALifetimeBeyondTheClockIsForEver) {
    start({.ttl = ~0UL});
    m_cache->putList("key", guids({"g"}));
    now = std::numeric_limits<std::time_t>::max();
    EXPECT_EQ(list("key"), 0);
}

TEST_F(Lists, OfADisabledCacheAreNotKept) {
    start({.enabled = false});
    const standin::CapturedLog log;
    m_cache->putList("key", guids({"g"}));
    EXPECT_EQ(list("key"), 2);
    EXPECT_FALSE(m_cache->negativeExpired("key"));
    m_cache->eraseList("key");
    EXPECT_EQ(log.count("Put GUID list to cache successfully."), 0);
}

}  // namespace
}  // namespace cachetest
