// SPDX-License-Identifier: Apache-2.0
// What the cache's tests share: a clock that stands still, objects, a manager
// whose dumps go to a folder of its own.
#pragma once

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cache/search_cache.h"
#include "tests/standin/captured.h"
#include "tests/standin/vex_standin.h"

namespace cachetest {

inline std::atomic<std::time_t> now = 1'000'000;
inline std::time_t clock() {
    return now;
}

inline vex::UniqueObject object(const std::string& cn) {
    return vex::UniqueObject(standin::makeObject({{"_GUID", {"g"}}, {"cn", {cn.c_str()}}}));
}

inline std::string cnOf(const vexObject* object) {
    vex::UniqueString value;
    return vex::readAttribute(nullptr, object, AD_CN, &value) == VEX_OK ? value.get() : "(none)";
}

inline std::shared_ptr<GuidList> guids(GuidList list) {
    return std::make_shared<GuidList>(std::move(list));
}

struct Settings {
    bool enabled = true;
    unsigned long maxLists = 100;
    unsigned long maxObjects = 3000;
    unsigned long ttl = 3600;
    unsigned long negTtl = 300;
    unsigned long logInterval = 1;
    float loadFactor = 1.3F;
};

// Sleeps until the thread is to end, so that the watcher does nothing of its own.
inline std::atomic<bool> watcherSleeps = false;
inline void sleepOn(long, long, long, long) {
    watcherSleeps = true;
    vorn::Thread::sleep(1000, 0, 0, 0);
}

class CacheTest : public testing::Test {
  protected:
    void SetUp() override {
        standin::reset();
        vorn::Thread::SetThreadsActive(true);
        now = 1'000'000;
    }
    void TearDown() override {
        m_cache.reset();
        EXPECT_THAT(standin::leaks(), testing::IsEmpty());
        EXPECT_THAT(standin::failures(), testing::IsEmpty());
    }

    void start(const Settings& settings = {},
               const SearchCacheEnvironment& environment = {clock, sleepOn, ""}) {
        m_cache = std::make_unique<SearchCacheManager>(environment);
        watcherSleeps = false;
        configure(settings);
        if (settings.enabled && environment.sleep == sleepOn) waitForTheWatcher();
    }
    void configure(const Settings& settings) {
        m_cache->init(settings.enabled, settings.maxLists, settings.maxObjects, settings.ttl, settings.negTtl,
                      settings.logInterval, settings.loadFactor);
    }

    // Until it has said what it says at its start: a test that reads the log later sees
    // none of it.
    static void waitForTheWatcher() {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!watcherSleeps && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
        ASSERT_TRUE(watcherSleeps);
    }

    void put(const std::string& guid, const std::string& cn) {
        m_cache->putObj(guid.c_str(), object(cn).get());
    }
    // The cn of the cached object, or "miss".
    std::string get(const std::string& guid) {
        CachedObject cached;
        return m_cache->getObj(guid, &cached) == SearchCacheManager::kHit ? cnOf(cached.object.get())
                                                                          : "miss";
    }
    int list(const std::string& key) {
        m_list.reset();
        return m_cache->getList(key, m_list);
    }
    // The counts as "hits negHits misses expires overflows cloneErrs"; lets a second pass.
    std::string counts() {
        now += 1;
        std::string line = m_cache->getStatisticsInfo();
        std::string numbers;
        for (const char c : line) {
            if (c == ',') numbers += ' ';
            if (c >= '0' && c <= '9') numbers += c;
        }
        return numbers;
    }

    std::unique_ptr<SearchCacheManager> m_cache;
    std::shared_ptr<GuidList> m_list;
};

}  // namespace cachetest
