// SPDX-License-Identifier: Apache-2.0
// The bound of bytes against what the heap says, with libvex's own objects. The whole
// process is measured: nothing else runs.
#include <gtest/gtest.h>
#include <malloc.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "cache/search_cache.h"
#include "vex/object.h"

namespace {

std::size_t inUse() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

vex::UniqueObject objectOf(std::size_t bytes) {
    flatbuffers::FlatBufferBuilder builder;
    const auto value = builder.CreateString(std::string(bytes, 'x'));
    const auto values = builder.CreateVector(std::vector{value});
    const auto attribute = vex::wire::CreateAttribute(builder, builder.CreateString("cn"), values);
    builder.Finish(vex::wire::CreateObject(builder, builder.CreateVector(std::vector{attribute})));
    return vex::UniqueObject(
        new vexObject{vex::ObjectRef::copyOf({builder.GetBufferPointer(), builder.GetSize()})});
}

// What fills a cache: sizes in bytes, up to these.
struct Load {
    const char* name;
    std::size_t key, guids, object, attachment;
};
void PrintTo(const Load& load, std::ostream* out) {
    *out << load.name;
}

class Memory : public testing::TestWithParam<Load> {
  protected:
    void fill(SearchCacheManager& cache) {
        const Load& load = GetParam();
        for (int i = 0; i < 10'000; ++i) {
            const std::string name = std::to_string(i);
            if (load.key > 0) cache.putList(name + std::string(some(load.key), 'k'), list(some(load.guids)));
            if (load.object > 0) cache.putObj(name.c_str(), objectOf(some(load.object)).get());
            if (load.attachment > 0) attach(cache, name, some(load.attachment));
        }
    }

  private:
    // As a search collects them: a list that has grown.
    static std::shared_ptr<GuidList> list(std::size_t count) {
        auto made = std::make_shared<GuidList>();
        for (std::size_t i = 0; i < count; ++i) made->emplace_back("017061ea-87a1-5cf8-8f65-6d1f26a74cf4");
        return made;
    }
    static void attach(SearchCacheManager& cache, const std::string& guid, std::size_t bytes) {
        CachedObject cached;
        if (cache.getObj(guid, &cached) != SearchCacheManager::kHit) return;
        cache.setAttachment(guid, cached.serial, std::shared_ptr<char[]>(new char[bytes]),
                            heapBytes(bytes) + heapBytes(24));
    }
    std::size_t some(std::size_t most) { return m_random() % most + 1; }

    std::mt19937 m_random{1};
};

TEST_P(Memory, TheHeapGrowsByNoMoreThanTheBound) {
    constexpr std::size_t kBound = 8 << 20;
    vorn::Thread::SetThreadsActive(true);
    auto cache = std::make_unique<SearchCacheManager>();
    const std::size_t before = inUse();
    cache->setMaxBytes(kBound);
    cache->init(true, 10'000, 10'000, 3600, 300, 0, 1.3F);
    fill(*cache);
    const std::size_t grown = inUse() - before;
    const std::string state = cache->getStateInfo();
    const auto counted = std::stoul(state.substr(state.find(": ") + 2));
    EXPECT_LE(grown, kBound + kBound / 10) << state;
    EXPECT_GE(grown, kBound - kBound / 10) << "the bound is used: " << state;
    EXPECT_LE(counted, kBound);
    EXPECT_NEAR(static_cast<double>(counted), static_cast<double>(grown), static_cast<double>(grown) / 10);
    cache.reset();
    constexpr std::size_t kKeptByTheThread = 256 << 10;  // freed blocks that malloc counts as in use
    EXPECT_LE(inUse(), before + kKeptByTheThread);
}

INSTANTIATE_TEST_SUITE_P(Loads, Memory,
                         testing::Values(Load{"long keys", 4000, 1, 0, 0}, Load{"long lists", 40, 60, 0, 0},
                                         Load{"objects", 0, 0, 3000, 0},
                                         Load{"objects with entries", 0, 0, 1000, 3000},
                                         Load{"all", 500, 20, 1500, 1500}));

}  // namespace
