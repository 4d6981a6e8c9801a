// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <random>
#include <thread>

#include "cache/cache_testing.h"

namespace cachetest {
namespace {

class Threads : public CacheTest {
  protected:
    void SetUp() override {
        CacheTest::SetUp();
        std::string pattern = (std::filesystem::temp_directory_path() / "cachethreads-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        m_folder = pattern;
    }
    void TearDown() override {
        CacheTest::TearDown();
        std::filesystem::remove_all(m_folder);
    }

    // One operation chosen by chance. Returns what must be true of every answer.
    bool step(std::mt19937& random) {
        const std::string name = std::to_string(random() % 40);
        switch (random() % 16) {
            case 0:
                m_cache->putList(name, guids(random() % 4 == 0 ? GuidList{} : GuidList{name}));
                return true;
            case 1:
                m_cache->eraseList(name);
                return true;
            case 2:
                now += 1;
                return true;
            case 3:
                m_lines += !m_cache->getStatisticsInfo().empty();
                return true;
            case 4:
                if (m_cache->negativeExpired(name)) m_cache->eraseList(name);
                return true;
            case 5:
            case 6:
            case 7:
                put(name, name);
                return true;
            case 8:
            case 9:
            case 10:
                return listIsRight(name);
            default:
                return objectIsRight(name);
        }
    }
    bool listIsRight(const std::string& name) {
        std::shared_ptr<GuidList> found;
        return m_cache->getList(name, found) != 0 || *found == GuidList{name};
    }
    bool objectIsRight(const std::string& name) {
        CachedObject cached;
        if (m_cache->getObj(name, &cached) != 0) return true;
        if (cached.attachment == nullptr) {
            m_cache->setAttachment(name, cached.serial, std::make_shared<const std::string>(name), 0);
        } else if (*static_cast<const std::string*>(cached.attachment.get()) != name) {
            return false;
        }
        ++m_hits;
        return cnOf(cached.object.get()) == name;
    }

    std::string m_folder;
    std::atomic<int> m_hits = 0;
    std::atomic<int> m_lines = 0;
};

TEST_F(Threads, ReadStoreEraseCountAndDumpTogether) {
    start({.maxLists = 20, .maxObjects = 30, .ttl = 50, .negTtl = 10}, {clock, sleepOn, m_folder + "/out_"});
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
    std::atomic<int> wrong = 0;
    std::vector<std::thread> threads;
    for (unsigned seed = 0; seed < 16; ++seed) {
        threads.emplace_back([&, seed] {
            std::mt19937 random(seed);
            while (std::chrono::steady_clock::now() < end) {
                if (!step(random)) ++wrong;
                if (seed == 0 && random() % 64 == 0) {
                    m_cache->dumpCache();
                    standin::forgetCalls();
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_GT(m_hits, 0);
    EXPECT_GT(m_lines, 0);
    EXPECT_GT(std::distance(std::filesystem::directory_iterator(m_folder), {}), 0);
}

}  // namespace
}  // namespace cachetest
