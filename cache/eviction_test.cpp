// SPDX-License-Identifier: Apache-2.0
// The manager against its rules said once more, as plainly as possible: over many
// random operations both tables hold the same entries, in the same order, and
// count the same.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <tuple>

#include "cache/cache_testing.h"
#include "vorn/hash.h"

namespace cachetest {
namespace {

constexpr std::size_t kMaxLists = 40;
constexpr std::size_t kMaxObjects = 60;
constexpr std::time_t kTtl = 200;
constexpr std::time_t kNegTtl = 50;

// Entries by key; each knows its bucket and when it was inserted.
template <typename Value>
class ModelTable {
  public:
    struct Entry {
        Value value;
        std::time_t expiry;
        std::size_t bucket;
        int inserted;
    };

    ModelTable(std::size_t capacity, std::size_t buckets) : m_capacity(capacity), m_buckets(buckets) {}

    Entry* find(const std::string& key) {
        const auto found = m_entries.find(key);
        return found == m_entries.end() ? nullptr : &found->second;
    }
    void erase(const std::string& key) { m_entries.erase(key); }
    void insert(const std::string& key, Value value, std::time_t expiry) {
        m_entries.emplace(key, Entry{value, expiry, vorn::murhash{}(key) % m_buckets, ++m_inserted});
    }
    // When full: of the entries nearest behind the place, around the table, the
    // oldest goes.
    bool makeRoom() {
        if (m_entries.size() < m_capacity) return false;
        const auto rank = [this](const auto& item) {
            const Entry& entry = item.second;
            return std::pair((entry.bucket + m_buckets - m_place) % m_buckets, entry.inserted);
        };
        const auto victim = std::min_element(m_entries.begin(), m_entries.end(),
                                             [&](const auto& a, const auto& b) { return rank(a) < rank(b); });
        m_place = (victim->second.bucket + 1) % m_buckets;
        m_entries.erase(victim);
        return true;
    }
    // By bucket, and in a bucket from new to old.
    std::vector<std::string> inTableOrder() const {
        std::vector<std::tuple<std::size_t, int, std::string>> sorted;
        for (const auto& [key, entry] : m_entries) sorted.emplace_back(entry.bucket, -entry.inserted, key);
        std::sort(sorted.begin(), sorted.end());
        std::vector<std::string> keys;
        for (const auto& item : sorted) keys.push_back(std::get<2>(item));
        return keys;
    }

  private:
    const std::size_t m_capacity;
    const std::size_t m_buckets;
    std::size_t m_place = 0;
    int m_inserted = 0;
    std::map<std::string, Entry> m_entries;
};

struct Counts {
    int hits = 0, negHits = 0, misses = 0, expires = 0, overflows = 0;
    std::string text() const {
        std::string line;
        for (const int count : {hits, negHits, misses, expires, overflows})
            line += std::to_string(count) + ' ';
        return line + "0";
    }
};

class ModelCache {
  public:
    ModelCache(std::size_t listBuckets, std::size_t objectBuckets)
        : m_lists(kMaxLists, listBuckets), m_objects(kMaxObjects, objectBuckets) {}

    int getList(const std::string& key, std::shared_ptr<GuidList>* out) {
        const auto* entry = m_lists.find(key);
        if (entry == nullptr) return ++m_counts.misses, 2;
        if (entry->value->empty()) return ++m_counts.negHits, 1;
        if (now <= entry->expiry) return *out = entry->value, ++m_counts.hits, 0;
        for (const std::string& guid : *entry->value) {
            const auto* object = m_objects.find(guid);
            if (object != nullptr && object->expiry < now) m_objects.erase(guid);
        }
        m_lists.erase(key);
        return ++m_counts.expires, 2;
    }
    void putList(const std::string& key, const std::shared_ptr<GuidList>& list) {
        if (m_lists.makeRoom()) ++m_counts.overflows;
        if (m_lists.find(key) == nullptr) m_lists.insert(key, list, now + (list->empty() ? kNegTtl : kTtl));
    }
    void eraseList(const std::string& key) { m_lists.erase(key); }

    std::string getObj(const std::string& guid) {
        const auto* entry = m_objects.find(guid);
        if (entry == nullptr) return ++m_counts.misses, "miss";
        if (now <= entry->expiry) return ++m_counts.hits, entry->value;
        m_objects.erase(guid);
        return ++m_counts.expires, "miss";
    }
    void putObj(const std::string& guid, const std::string& cn) {
        if (m_objects.makeRoom()) ++m_counts.overflows;
        const auto* entry = m_objects.find(guid);
        if (entry != nullptr && now <= entry->expiry) return;
        m_objects.erase(guid);
        m_objects.insert(guid, cn, now + kTtl);
    }

    // What a dump shows: the lists' keys, then the objects'.
    std::vector<std::string> keys() const {
        std::vector<std::string> all = m_lists.inTableOrder();
        const std::vector<std::string> objects = m_objects.inTableOrder();
        all.insert(all.end(), objects.begin(), objects.end());
        return all;
    }
    std::string counts() const { return m_counts.text(); }

  private:
    ModelTable<std::shared_ptr<GuidList>> m_lists;
    ModelTable<std::string> m_objects;
    Counts m_counts;
};

struct Sizing {
    float loadFactor;
    std::size_t listBuckets;  // what 40 lists and 60 objects take with it
    std::size_t objectBuckets;
};

class Eviction : public CacheTest, public testing::WithParamInterface<Sizing> {
  protected:
    void SetUp() override {
        CacheTest::SetUp();
        std::string pattern = (std::filesystem::temp_directory_path() / "cacheeviction-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        m_folder = pattern;
        for (int i = 0; i < 8; ++i) m_pool.push_back(object(std::to_string(i)));
        start({.maxLists = kMaxLists,
               .maxObjects = kMaxObjects,
               .ttl = kTtl,
               .negTtl = kNegTtl,
               .loadFactor = GetParam().loadFactor},
              {clock, sleepOn, m_folder + "/out_"});
    }
    void TearDown() override {
        m_pool.clear();
        CacheTest::TearDown();
        std::filesystem::remove_all(m_folder);
    }

    std::string guid() { return "guid-" + std::to_string(m_random() % 150); }

    void listOperation() {
        const std::string key = "(cn=" + std::to_string(m_random() % 100) + ")dc=x2";
        switch (m_random() % 8) {
            case 0:
                m_cache->eraseList(key);
                m_model.eraseList(key);
                break;
            case 1:
            case 2:
            case 3: {
                std::shared_ptr<GuidList> expected;
                ASSERT_EQ(list(key), m_model.getList(key, &expected));
                ASSERT_EQ(m_list, expected);
                break;
            }
            default: {
                const auto stored = m_random() % 4 == 0 ? guids({}) : guids({guid(), guid(), guid()});
                m_cache->putList(key, stored);
                m_model.putList(key, stored);
            }
        }
    }
    void objectOperation() {
        const std::string key = guid();
        if (m_random() % 2 == 0) {
            ASSERT_EQ(get(key), m_model.getObj(key));
            return;
        }
        const std::size_t which = m_random() % m_pool.size();
        m_cache->putObj(key.c_str(), m_pool[which].get());
        m_model.putObj(key, std::to_string(which));
    }
    // The keys of both tables, in their order.
    std::vector<std::string> dumpedKeys() {
        m_cache->dumpCache();
        std::vector<std::string> keys;
        for (const auto& file : std::filesystem::directory_iterator(m_folder)) {
            std::ifstream lines(file.path());
            for (std::string line; std::getline(lines, line);) {
                if (line.starts_with("Key[")) keys.push_back(line.substr(line.find("]: ") + 3));
            }
            std::filesystem::remove(file.path());
        }
        return keys;
    }

    std::string m_folder;
    std::mt19937 m_random{42};
    std::vector<vex::UniqueObject> m_pool;
    ModelCache m_model{GetParam().listBuckets, GetParam().objectBuckets};
};

TEST_P(Eviction, AgreesWithTheRulesOver100000OperationsOnEachTable) {
    for (int step = 0; step < 100'000; ++step) {
        ASSERT_NO_FATAL_FAILURE(listOperation());
        ASSERT_NO_FATAL_FAILURE(objectOperation());
        if (m_random() % 4 == 0) now += 1;
        if (step % 1000 == 999) {
            ASSERT_EQ(dumpedKeys(), m_model.keys()) << "step " << step;
            ASSERT_EQ(counts(), m_model.counts());
            standin::forgetCalls();
        }
    }
}

INSTANTIATE_TEST_SUITE_P(LoadFactors, Eviction,
                         testing::Values(Sizing{0.05F, 1031, 1543}, Sizing{1.0F, 53, 67},
                                         Sizing{1.3F, 37, 53}, Sizing{4.0F, 11, 17}, Sizing{50.0F, 5, 5}),
                         [](const auto& sizing) {
                             return std::to_string(sizing.param.listBuckets) + "ListBuckets";
                         });

}  // namespace
}  // namespace cachetest
