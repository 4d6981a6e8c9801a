// SPDX-License-Identifier: Apache-2.0
// What the cache does not take, and what makes room for it.
#include <sys/resource.h>

#include "cache/cache_testing.h"

namespace cachetest {
namespace {

class Bounds : public CacheTest {
  protected:
    // A field of the state's line.
    unsigned long long state(const std::string& field) {
        const std::string line = ", " + m_cache->getStateInfo();
        const std::size_t at = line.find(", " + field + ": ");
        return at == std::string::npos ? ~0ULL : std::stoull(line.substr(at + field.size() + 4));
    }
    void startWith(std::uint64_t maxBytes, Settings settings = {}) {
        m_cache = std::make_unique<SearchCacheManager>(SearchCacheEnvironment{clock, sleepOn, ""});
        m_cache->setMaxBytes(maxBytes);
        watcherSleeps = false;
        configure(settings);
        if (m_cache->isEnabled()) waitForTheWatcher();
    }
    static std::string key(std::size_t length) { return std::string(length, 'k'); }
};

TEST_F(Bounds, TheStateIsALineOfItsOwn) {
    startWith(1 << 20);
    m_cache->putList("key", guids({"g", "h"}));
    put("g", "ann");
    EXPECT_EQ(m_cache->getStateInfo(),
              "cache bytes: " + std::to_string(state("cache bytes")) +
                  ", max bytes: 1048576, lists: 1, objects: 1, evicted for bytes: 0, "
                  "refused: 0");
    m_cache->putList(key(4097), guids({}));
    EXPECT_EQ(state("refused"), 1U);
}

TEST_F(Bounds, ALongKeyIsNotKept) {
    startWith(0);
    const standin::CapturedLog log;
    m_cache->putList(key(4096), guids({"g"}));
    EXPECT_EQ(log.count("Put GUID list to cache successfully."), 1);
    EXPECT_EQ(list(key(4096)), SearchCacheManager::kHit);
    m_cache->putList(key(4097), guids({"g"}));
    EXPECT_EQ(log.count("Put GUID list to cache successfully."), 1);
    EXPECT_EQ(list(key(4097)), SearchCacheManager::kMiss);
    put(key(4096), "ann");
    EXPECT_EQ(state("refused"), 1U);
    put(key(4097), "bob");
    EXPECT_EQ(state("refused"), 2U);
    EXPECT_EQ(get(key(4096)), "ann");
    EXPECT_EQ(get(key(4097)), "miss");
}

TEST_F(Bounds, AListThatTheObjectsCannotFollowIsNotKept) {
    const struct {
        unsigned long maxObjects;
        std::size_t guids;
        bool kept;
    } cases[] = {{10, 1000, true}, {10, 1001, false}, {1001, 1001, true}, {1001, 1002, false}};
    for (const auto& one : cases) {
        startWith(0, {.maxObjects = one.maxObjects});
        m_cache->putList("key", std::make_shared<GuidList>(one.guids, "g"));
        EXPECT_EQ(list("key"), one.kept ? SearchCacheManager::kHit : SearchCacheManager::kMiss)
            << one.guids << " of " << one.maxObjects;
    }
}

TEST_F(Bounds, AFullChainIsCountedAndTakesNoMore) {
    startWith(0, {.maxLists = 5000, .maxObjects = 5000, .loadFactor = 5000});
    // Five buckets each: by this load factor a chain takes 40,000.
    for (int i = 0; i < 300; ++i) m_cache->putList(std::to_string(i), guids({}));
    EXPECT_EQ(state("lists"), 300U);
    EXPECT_EQ(state("refused"), 0U);
    startWith(0, {.maxLists = 5000, .maxObjects = 5000, .loadFactor = 1});
    int lists = 0;
    for (int i = 0; lists < 80; ++i) {
        const std::string name = std::to_string(i);
        if (vorn::murhash{}(name) % 6151 != 0) continue;
        ++lists;
        m_cache->putList(name, guids({"g"}));
        put(name, "ann");
    }
    EXPECT_EQ(state("lists"), 64U);
    EXPECT_EQ(state("objects"), 64U);
    EXPECT_EQ(state("refused"), 32U);
}

TEST_F(Bounds, BytesMakeRoomForBytes) {
    constexpr std::uint64_t kMax = 256 << 10;
    startWith(kMax, {.maxLists = 10'000, .maxObjects = 10'000});
    const unsigned long long empty = state("cache bytes");
    for (int i = 0; i < 2000; ++i) {
        const std::string name = std::to_string(i);
        m_cache->putList(name + key(i % 1000), guids({name, name}));
        ASSERT_EQ(list(name + key(i % 1000)), SearchCacheManager::kHit) << "the newest has its room";
        put(name, key(i % 700));
        ASSERT_EQ(get(name), key(i % 700));
        ASSERT_LE(state("cache bytes"), kMax);
    }
    EXPECT_GT(state("evicted for bytes"), 1000U);
    EXPECT_EQ(state("evicted for bytes"), 4000 - state("lists") - state("objects"));
    EXPECT_GT(state("cache bytes"), kMax / 2);
    for (int i = 0; i < 2000; ++i) m_cache->eraseList(std::to_string(i) + key(i % 1000));
    EXPECT_EQ(state("lists"), 0U);
    now += 10'000;
    for (int i = 0; i < 2000; ++i) get(std::to_string(i));  // they have expired
    EXPECT_EQ(state("cache bytes"), empty);
}

// The table that takes more makes room: many small objects are safe from few long lists.
TEST_F(Bounds, TheLargerTableMakesRoom) {
    startWith(512 << 10, {.maxLists = 1000, .maxObjects = 1000});
    for (int i = 0; i < 100; ++i) put(std::to_string(i), "ann");
    for (int i = 0; i < 1000; ++i) m_cache->putList(std::to_string(i) + key(4000), guids({"g"}));
    EXPECT_EQ(state("objects"), 100U);
    EXPECT_GT(state("evicted for bytes"), 0U);
}

TEST_F(Bounds, WhatIsLargerThanTheBoundIsNotKeptAndMovesNobody) {
    startWith(64 << 10, {.maxLists = 10, .maxObjects = 10});
    put("g", "ann");
    put("h", std::string(70'000, 'x'));
    m_cache->putList("key", std::make_shared<GuidList>(1000, std::string(100, 'g')));
    CachedObject cached;
    ASSERT_EQ(m_cache->getObj("g", &cached), SearchCacheManager::kHit);
    m_cache->setAttachment("g", cached.serial, std::make_shared<int>(1), 70'000);
    EXPECT_EQ(get("g"), "ann");
    EXPECT_EQ(get("h"), "miss");
    EXPECT_EQ(list("key"), SearchCacheManager::kMiss);
    EXPECT_EQ(state("evicted for bytes"), 0U);
    EXPECT_EQ(state("refused"), 3U);
    ASSERT_EQ(m_cache->getObj("g", &cached), SearchCacheManager::kHit);
    EXPECT_EQ(cached.attachment, nullptr);
}

TEST_F(Bounds, WhatFitsToTheByteMovesNobody) {
    for (const int tooMany : {0, 1}) {
        startWith(0);
        put("g", "ann");
        const auto attachment = std::make_shared<int>(1);
        CachedObject cached;
        ASSERT_EQ(m_cache->getObj("g", &cached), SearchCacheManager::kHit);
        m_cache->setMaxBytes(state("cache bytes") + 1000);
        m_cache->setAttachment("g", cached.serial, attachment, 1000 + tooMany);
        EXPECT_EQ(state("evicted for bytes"), tooMany);
        EXPECT_EQ(attachment.use_count(), 2 - tooMany);
    }
}

TEST_F(Bounds, WhatFillsTheBoundToTheByteIsNotRefused) {
    for (const int tooMany : {0, 1}) {
        startWith(0);
        const auto empty = state("cache bytes");
        put("g", "ann");
        CachedObject cached;
        ASSERT_EQ(m_cache->getObj("g", &cached), SearchCacheManager::kHit);
        m_cache->setMaxBytes(empty + 1000);
        m_cache->setAttachment("g", cached.serial, std::make_shared<int>(1), 1000 + tooMany);
        EXPECT_EQ(state("refused"), tooMany);
        EXPECT_EQ(state("objects"), tooMany) << "it makes room for all that is not refused";
    }
}

TEST_F(Bounds, AGigabyteIsTheMostOfAnEntry) {
    constexpr std::size_t kMost = 1'073'741'824;
    startWith(0);
    put("g", "ann");
    CachedObject cached;
    ASSERT_EQ(m_cache->getObj("g", &cached), SearchCacheManager::kHit);
    m_cache->setAttachment("g", cached.serial, std::make_shared<int>(1), kMost + 1);
    EXPECT_EQ(state("refused"), 1U);
    EXPECT_LT(state("cache bytes"), kMost);
    m_cache->setAttachment("g", cached.serial, std::make_shared<int>(1), kMost);
    EXPECT_EQ(state("refused"), 1U);
    EXPECT_GT(state("cache bytes"), kMost);
}

TEST_F(Bounds, WhatIsThereAlreadyMovesNobody) {
    startWith(0);
    m_cache->putList("key", guids({"g"}));
    put("g", "ann");
    m_cache->setMaxBytes(state("cache bytes"));
    m_cache->putList("key", guids({"g"}));
    put("g", "ann");
    EXPECT_EQ(state("evicted for bytes"), 0U);
    EXPECT_EQ(state("lists"), 1U);
    EXPECT_EQ(state("objects"), 1U);
}

TEST_F(Bounds, AnAttachmentCountsUntilItGoes) {
    startWith(0);
    put("g", "ann");
    const auto before = state("cache bytes");
    CachedObject cached;
    ASSERT_EQ(m_cache->getObj("g", &cached), SearchCacheManager::kHit);
    m_cache->setAttachment("g", cached.serial, std::make_shared<int>(1), 1000);
    EXPECT_EQ(state("cache bytes"), before + 1000);
    m_cache->setAttachment("g", cached.serial, std::make_shared<int>(2), 100);
    EXPECT_EQ(state("cache bytes"), before + 100) << "another in its place";
    m_cache->setAttachment("g", cached.serial + 1, std::make_shared<int>(3), 7);
    EXPECT_EQ(state("cache bytes"), before + 100) << "not this entry's";
    m_cache->setAttachment("g", cached.serial, nullptr, 0);
    EXPECT_EQ(state("cache bytes"), before);
}

TEST_F(Bounds, AnAttachmentWhoseOwnEntryMadeRoomIsDropped) {
    startWith(16 << 10, {.maxLists = 5, .maxObjects = 5});
    put("g", std::string(9000, 'x'));
    CachedObject cached;
    ASSERT_EQ(m_cache->getObj("g", &cached), SearchCacheManager::kHit);
    const auto attachment = std::make_shared<int>(1);
    m_cache->setAttachment("g", cached.serial, attachment, 9000);
    EXPECT_EQ(attachment.use_count(), 1);
    EXPECT_EQ(state("objects"), 0U);
}

// ------------------------------------------------------------------ no room at all

class NoRoom : public Bounds {
  protected:
    static constexpr const char* kSays = "The memory cache stays off: no room for its tables.";
    void expectOff(const standin::CapturedLog& log) {
        EXPECT_TRUE(m_cache->isInitialized());
        EXPECT_FALSE(m_cache->isEnabled());
        configure({});
        EXPECT_FALSE(m_cache->isEnabled()) << "for good";
        put("g", "ann");
        m_cache->putList("key", guids({"g"}));
        EXPECT_EQ(get("g"), "miss");
        EXPECT_EQ(list("key"), SearchCacheManager::kMiss);
        const auto records = log.records();
        EXPECT_EQ(std::count_if(records.begin(), records.end(),
                                [](const std::string& one) { return one.find(kSays) != one.npos; }),
                  1);
        EXPECT_EQ(log.count("Init memory cache successfully."), 0);
    }
};

TEST_F(NoRoom, TablesAboveTheBoundLeaveTheCacheOff) {
    for (const Settings& settings : {Settings{.maxObjects = 2147483647}, Settings{.maxLists = 2147483647},
                                     Settings{.loadFactor = 1e-45F}}) {
        const standin::CapturedLog log;
        startWith(256 << 20, settings);
        expectOff(log);
    }
}

TEST_F(NoRoom, TablesThatFillTheBoundToTheByteHaveTheirRoom) {
    startWith(0);
    const auto empty = state("cache bytes");
    startWith(empty);
    EXPECT_TRUE(m_cache->isEnabled());
    startWith(empty - 1);
    EXPECT_FALSE(m_cache->isEnabled());
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // whose shadows count too
TEST_F(NoRoom, TablesThatMemoryHasNoRoomForLeaveTheCacheOff) {
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_AS, &before), 0);
    const rlimit tight = {rlim_t{4} << 30, before.rlim_max};
    for (const Settings& settings : {Settings{.maxObjects = 2147483647}, Settings{.loadFactor = 1e-45F}}) {
        const standin::CapturedLog log;
        ASSERT_EQ(setrlimit(RLIMIT_AS, &tight), 0);
        startWith(0, settings);
        ASSERT_EQ(setrlimit(RLIMIT_AS, &before), 0);
        expectOff(log);
    }
}
#endif

}  // namespace
}  // namespace cachetest
