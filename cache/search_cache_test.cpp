// SPDX-License-Identifier: Apache-2.0
#include <csignal>
#include <filesystem>
#include <functional>
#include <thread>
#include <utility>

#include "backend/base/log.h"
#include "cache/cache_testing.h"

namespace cachetest {
namespace {

class Manager : public CacheTest {
  protected:
    static void ignore(int) {}
};

TEST_F(Manager, DoesNothingBeforeItIsInitialized) {
    m_cache = std::make_unique<SearchCacheManager>(SearchCacheEnvironment{clock, sleepOn, ""});
    EXPECT_FALSE(m_cache->isInitialized());
    EXPECT_FALSE(m_cache->isEnabled());
    put("g", "ann");
    m_cache->putList("key", guids({"g"}));
    m_cache->eraseList("key");
    EXPECT_EQ(get("g"), "miss");
    EXPECT_EQ(list("key"), 2);
    EXPECT_EQ(m_cache->getStatisticsInfo(), "");
}

TEST_F(Manager, SaysItsSettingsAndBucketCounts) {
    const standin::CapturedLog log;
    start({.logInterval = 7});
    EXPECT_TRUE(m_cache->isInitialized());
    EXPECT_TRUE(m_cache->isEnabled());
    EXPECT_EQ(log.count("Init memory cache successfully. max lists: 100, max objects: 3000, ttl: 3600, "
                        "negative ttl: 300, log interval: 7, list cache bucket number: 79, object cache "
                        "bucket number: 3079"),
              1);
}

TEST_F(Manager, TakesBucketsForItsLoadFactor) {
    struct Case {
        float loadFactor;
        std::string buckets;
    };
    const Case cases[] = {
        {1.3F, "list cache bucket number: 79, object cache bucket number: 3079"},
        {1.0F, "list cache bucket number: 131, object cache bucket number: 3079"},
        {1000.0F, "list cache bucket number: 5, object cache bucket number: 5"},
        // The request is 200000 and 6000000: by 0.001 it would be half of that.
        {0.0005F, "list cache bucket number: 393241, object cache bucket number: 6291469"},
    };
    for (const Case& c : cases) {
        const standin::CapturedLog log;
        start({.loadFactor = c.loadFactor});
        EXPECT_EQ(log.count("Init memory cache successfully. max lists: 100, max objects: 3000, ttl: 3600, "
                            "negative ttl: 300, log interval: 1, " +
                            c.buckets),
                  1)
            << c.loadFactor;
    }
}

// In double precision 7 / 1.4 would be a little more than 5, which takes 11 buckets.
TEST_F(Manager, DividesInSinglePrecision) {
    const standin::CapturedLog log;
    start({.maxLists = 7, .maxObjects = 7, .loadFactor = 1.4F});
    EXPECT_EQ(log.count("Init memory cache successfully. max lists: 7, max objects: 7, ttl: 3600, negative "
                        "ttl: 300, log interval: 1, list cache bucket number: 5, object cache bucket "
                        "number: 5"),
              1);
}

TEST_F(Manager, KeepsItsFirstSettings) {
    start({.maxObjects = 1});
    const standin::CapturedLog log;
    configure({.enabled = false, .maxObjects = 5});
    EXPECT_TRUE(m_cache->isEnabled());
    EXPECT_TRUE(log.records().empty());
    put("a", "ann");
    put("b", "bob");
    EXPECT_EQ(get("a"), "miss");
}

TEST_F(Manager, StaysDisabled) {
    start({.enabled = false});
    configure({.enabled = true});
    EXPECT_TRUE(m_cache->isInitialized());
    EXPECT_FALSE(m_cache->isEnabled());
}

TEST_F(Manager, DisabledSaysNothingAndLeavesTheSignalAlone) {
    std::signal(SIGUSR1, ignore);
    const standin::CapturedLog log;
    start({.enabled = false});
    EXPECT_EQ(std::signal(SIGUSR1, SIG_DFL), &Manager::ignore);
    EXPECT_TRUE(log.records().empty());
    // Not even a load factor matters.
    start({.enabled = false, .loadFactor = 0});
}

std::ptrdiff_t threadsOfThisProcess() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

// A thread of an earlier test may be about to go, so there may be fewer afterwards.
TEST_F(Manager, DisabledStartsNoThread) {
    const std::ptrdiff_t before = threadsOfThisProcess();
    start({.enabled = false});
    EXPECT_LE(threadsOfThisProcess(), before);
}

TEST_F(Manager, TakesTheSignalOver) {
    std::signal(SIGUSR1, ignore);
    start();
    EXPECT_EQ(std::signal(SIGUSR1, SIG_DFL), &SigHandleDumpCache);
}

TEST_F(Manager, SaysHowItEnds) {
    start();
    const standin::CapturedLog log;
    m_cache.reset();
    EXPECT_EQ(log.count("Cleaning up signal check thread..."), 1);
    EXPECT_EQ(log.count("Finished cleaning up signal check thread"), 1);
}

// The watcher's stack is unwound when it is killed.
struct SaysThatItEnds {
    ~SaysThatItEnds() { JPrintf("the watcher ends"); }
};
void sleepAndSay(long, long, long, long) {
    const SaysThatItEnds says;
    watcherSleeps = true;
    vorn::Thread::sleep(1000, 0, 0, 0);
}

TEST_F(Manager, SaysThatItHasEndedWhenItsWatcherHas) {
    watcherSleeps = false;
    start({}, {clock, sleepAndSay, ""});
    waitForTheWatcher();
    const standin::CapturedLog log;
    m_cache.reset();
    const auto records = log.records();
    ASSERT_EQ(records.size(), 3U);
    EXPECT_THAT(records[0], testing::EndsWith("Cleaning up signal check thread..."));
    EXPECT_THAT(records[1], testing::EndsWith("the watcher ends"));
    EXPECT_THAT(records[2], testing::EndsWith("Finished cleaning up signal check thread"));
}

using ManagerDeath = Manager;
TEST_F(ManagerDeath, ALoadFactorOfZeroOrLessEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (const float factor : {0.0F, -1.0F, std::numeric_limits<float>::quiet_NaN()}) {
        EXPECT_DEATH(start({.loadFactor = factor}), "loadFactor > 0");
    }
}

class Statistics : public CacheTest {};

TEST_F(Statistics, AreALineWithAllCounts) {
    start({.maxLists = 1, .logInterval = 60});
    m_cache->putList("none", guids({}));
    m_cache->putList("key", guids({"g"}));
    for (int i = 0; i < 12; ++i) list("key");
    list("none");
    put("g", "ann");
    standin::answer("ChmCloneObject", 3);
    get("g");
    now = 1'000'060;
    EXPECT_EQ(m_cache->getStatisticsInfo(),
              "cache hits: 12, negHits: 0, misses: 1, expires: 0, overflows: 1, cloneErrs: 1");
    m_cache->eraseList("key");
    m_cache->putList("none", guids({}));
    list("none");
    now = 2'000'000;
    get("g");
    EXPECT_EQ(m_cache->getStatisticsInfo(),
              "cache hits: 12, negHits: 1, misses: 1, expires: 1, overflows: 1, cloneErrs: 1");
}

TEST_F(Statistics, ComeOncePerInterval) {
    start({.logInterval = 60});
    EXPECT_EQ(m_cache->getStatisticsInfo(), "");
    now = 1'000'059;
    EXPECT_EQ(m_cache->getStatisticsInfo(), "");
    now = 1'000'070;
    EXPECT_NE(m_cache->getStatisticsInfo(), "");
    EXPECT_EQ(m_cache->getStatisticsInfo(), "");
    now = 1'000'129;  // from the line on, not from when it was due
    EXPECT_EQ(m_cache->getStatisticsInfo(), "");
    now = 1'000'130;
    EXPECT_NE(m_cache->getStatisticsInfo(), "");
}

// What comes between two looks at the clock.
std::function<void()> betweenLooks;
std::time_t interruptedClock() {
    const std::time_t time = now;
    if (const auto interruption = std::exchange(betweenLooks, nullptr)) interruption();
    return time;
}

TEST_F(Statistics, ComeToOneOfTwoThatFindThemDueAtOnce) {
    start({.logInterval = 60}, {interruptedClock, sleepOn, ""});
    now = 1'000'060;
    std::string others;
    betweenLooks = [&] { others = m_cache->getStatisticsInfo(); };
    EXPECT_EQ(m_cache->getStatisticsInfo(), "");
    EXPECT_NE(others, "");
}

TEST_F(Statistics, NeverComeWithoutAnInterval) {
    start({.logInterval = 0});
    now = 3'000'000;
    EXPECT_EQ(m_cache->getStatisticsInfo(), "");
}

TEST_F(Statistics, NeverComeFromADisabledCache) {
    start({.enabled = false});
    now = 3'000'000;
    EXPECT_EQ(m_cache->getStatisticsInfo(), "");
}

TEST(Instance, IsOneForAllThreadsAndIsMadeAnewAfterItsEnd) {
    SearchCacheManager* found[8] = {};
    std::vector<std::thread> threads;
    for (auto& place : found) {
        threads.emplace_back([&place] { place = SearchCacheManager::GetCacheManager(); });
    }
    for (auto& thread : threads) thread.join();
    ASSERT_NE(found[0], nullptr);
    for (const auto* manager : found) EXPECT_EQ(manager, found[0]);
    found[0]->init(false, 1, 1, 1, 1, 1, 1);
    SearchCacheManager::Destroy();
    EXPECT_FALSE(SearchCacheManager::GetCacheManager()->isInitialized());
    SearchCacheManager::Destroy();
    SearchCacheManager::Destroy();  // nothing is there: nothing happens
}

}  // namespace
}  // namespace cachetest
