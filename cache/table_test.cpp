// SPDX-License-Identifier: Apache-2.0
#include "cache/table.h"

#include <gmock/gmock.h>

#include <array>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

using IntTable = CacheTable<int>;

std::size_t bucketOf(const std::string& key, std::size_t buckets) {
    return vorn::MurmurHash2(key.data(), static_cast<int>(key.size()), 0xdeadbeef) % buckets;
}

// The first count keys of the form "kN" that share a bucket.
std::vector<std::string> keysOfBucket(std::size_t bucket, std::size_t buckets, std::size_t count) {
    std::vector<std::string> keys;
    for (int i = 0; keys.size() < count; ++i) {
        const std::string key = "k" + std::to_string(i);
        if (bucketOf(key, buckets) == bucket) keys.push_back(key);
    }
    return keys;
}

std::vector<std::string> keysOf(const IntTable& table) {
    std::vector<std::string> keys;
    table.forEach([&](const IntTable::Node& node) { keys.push_back(node.key); });
    return keys;
}

TEST(PrimeBuckets, AreTheSmallestOfTheListNotBelowTheRequest) {
    const std::pair<std::size_t, std::size_t> cases[] = {
        {0, 5},
        {5, 5},
        {6, 11},
        {10, 11},
        {11, 11},
        {12, 17},
        {77, 79},
        {2308, 3079},
        {3079, 3079},
        {3080, 6151},
        {200000, 393241},
        {4294967290, 4294967291},
        {4294967291, 4294967291},
        {4294967292, 4294967291},
    };
    for (const auto& [request, buckets] : cases) EXPECT_EQ(primeBuckets(request), buckets) << request;
}

// Where a key lies, and so what a sweep evicts and in which order a dump shows the
// entries, hangs on every number of the list.
TEST(PrimeBuckets, AreFortyFixedPrimes) {
    std::vector<std::size_t> list;
    for (std::size_t count = primeBuckets(0); list.empty() || count != list.back();
         count = primeBuckets(count + 1)) {
        list.push_back(count);
    }
    EXPECT_THAT(list, ElementsAreArray({5UL,         11UL,        17UL,         29UL,         37UL,
                                        53UL,        67UL,        79UL,         97UL,         131UL,
                                        193UL,       257UL,       389UL,        521UL,        769UL,
                                        1031UL,      1543UL,      2053UL,       3079UL,       6151UL,
                                        12289UL,     24593UL,     49157UL,      98317UL,      196613UL,
                                        393241UL,    786433UL,    1572869UL,    3145739UL,    6291469UL,
                                        12582917UL,  25165843UL,  50331653UL,   100663319UL,  201326611UL,
                                        402653189UL, 805306457UL, 1610612741UL, 3221225473UL, 4294967291UL}));
    for (const std::size_t number : list) {
        for (std::size_t divisor = 2; divisor * divisor <= number; ++divisor) {
            ASSERT_NE(number % divisor, 0U) << number;
        }
    }
}

TEST(Table, BeginsEmptyWith11BucketsAndLoadFactor1) {
    IntTable table;
    EXPECT_TRUE(table.empty());
    EXPECT_EQ(table.size(), 0U);
    EXPECT_EQ(table.bucketCount(), 11U);
    EXPECT_EQ(table.maxLoadFactor(), 1.0F);
    EXPECT_EQ(table.find("k"), nullptr);
}

TEST(Table, FindsByBytesAndKeepsTheFirstValueOfAKey) {
    IntTable table;
    EXPECT_TRUE(table.insert("Ann", 1).second);
    EXPECT_TRUE(table.insert("ann", 2).second);
    EXPECT_TRUE(table.insert(std::string("ann\0x", 5), 3).second);
    EXPECT_TRUE(table.insert("", 4).second);
    const auto [node, isNew] = table.insert("ann", 5);
    EXPECT_FALSE(isNew);
    EXPECT_EQ(node->value, 2);
    EXPECT_EQ(table.find("Ann")->value, 1);
    EXPECT_EQ(table.find(std::string_view("ann\0x", 5))->value, 3);
    EXPECT_EQ(table.find("")->value, 4);
    EXPECT_EQ(table.size(), 4U);
}

// They share all 32 bits, not only the bucket.
TEST(Table, TellsKeysWithOneHashApart) {
    const std::string ann = "(uid=u49449)dc=example,dc=com2", bob = "(uid=u62172)dc=example,dc=com2";
    ASSERT_EQ(vorn::murhash{}(ann), 0x937104eaU);
    ASSERT_EQ(vorn::murhash{}(bob), 0x937104eaU);
    IntTable table;
    IntTable::Trash trash;
    table.insert(ann, 1);
    EXPECT_EQ(table.find(bob), nullptr);
    table.erase(bob, &trash);
    ASSERT_NE(table.find(ann), nullptr);
    EXPECT_TRUE(table.insert(bob, 2).second);
    EXPECT_EQ(table.find(ann)->value, 1);
    EXPECT_EQ(table.find(bob)->value, 2);
    table.erase(ann, &trash);
    EXPECT_EQ(table.find(ann), nullptr);
    EXPECT_EQ(table.find(bob)->value, 2);
}

TEST(Table, AFullChainTakesNoMore) {
    const struct {
        float loadFactor;
        std::size_t longest;
    } cases[] = {{1.3F, 64}, {8.0F, 64}, {8.5F, 68}, {100.0F, 800}};
    for (const auto& one : cases) {
        IntTable table;
        IntTable::Trash trash;
        table.setMaxLoadFactor(one.loadFactor);
        table.requestBuckets(10'000'000 / static_cast<std::size_t>(1000 * one.loadFactor));
        ASSERT_EQ(table.maxChain(), one.longest);
        const auto keys = keysOfBucket(3, table.bucketCount(), one.longest + 2);
        const std::string& last = keys[one.longest];
        for (std::size_t i = 0; i < one.longest; ++i) ASSERT_TRUE(table.insert(keys[i], 0).second);
        const std::size_t bytes = table.bytes();
        EXPECT_EQ(table.insert(last, 0), (std::pair<IntTable::Node*, bool>(nullptr, false)));
        EXPECT_EQ(table.find(last), nullptr);
        EXPECT_EQ(table.size(), one.longest);
        EXPECT_EQ(table.bytes(), bytes);
        EXPECT_FALSE(table.insert(keys[0], 1).second) << "what is there stays there";
        EXPECT_NE(table.find(keys[0]), nullptr);
        EXPECT_TRUE(table.insert(keysOfBucket(4, table.bucketCount(), 1)[0], 0).second);
        table.erase(keys[5], &trash);
        EXPECT_TRUE(table.insert(last, 0).second) << "room again";
    }
}

TEST(Table, KnowsItsBytes) {
    IntTable table;
    IntTable::Trash trash;
    const std::size_t empty = table.bytes();
    EXPECT_EQ(empty, IntTable::bucketBytes(11));
    EXPECT_EQ(table.bytesOfEntries(), 0U);
    const std::string longKey(100, 'k');
    table.insert("short", 0, 40);
    IntTable::Node* node = table.insert(longKey, 0).first;
    const std::size_t both = IntTable::entryBytes("short", 40) + IntTable::entryBytes(longKey, 0);
    EXPECT_EQ(IntTable::entryBytes(longKey, 0), IntTable::entryBytes("short", 0) + heapBytes(101));
    EXPECT_EQ(table.bytesOfEntries(), both);
    table.insert("short", 0, 4000);
    EXPECT_EQ(table.bytesOfEntries(), both) << "was there already";
    table.setBytesElsewhere(node, 500);
    EXPECT_EQ(table.bytesOfEntries(), both + 500);
    table.erase(longKey, &trash);
    EXPECT_EQ(table.bytes(), empty + IntTable::entryBytes("short", 40));
    table.evict(&trash);
    EXPECT_EQ(table.bytes(), empty);
    table.insert("short", 0, 40);
    table.clear();
    EXPECT_EQ(table.bytes(), empty);
}

TEST(Table, NumbersItsInsertionsAndNeverRepeatsANumber) {
    IntTable table;
    EXPECT_EQ(table.insert("a", 1).first->serial, 1U);
    EXPECT_EQ(table.insert("a", 1).first->serial, 1U);
    IntTable::Trash trash;
    table.erase("a", &trash);
    EXPECT_EQ(table.insert("a", 1).first->serial, 2U);
}

TEST(Table, PutsANewEntryAtTheHeadOfItsChain) {
    IntTable table;
    const auto keys = keysOfBucket(4, 11, 3);
    for (const auto& key : keys) table.insert(key, 0);
    EXPECT_THAT(keysOf(table), ElementsAre(keys[2], keys[1], keys[0]));
}

TEST(Table, ErasesFromAnyPlaceOfAChain) {
    for (std::size_t victim = 0; victim < 3; ++victim) {
        IntTable table;
        auto keys = keysOfBucket(4, 11, 3);
        for (const auto& key : keys) table.insert(key, 0);
        IntTable::Trash trash;
        table.erase("absent", &trash);
        EXPECT_EQ(table.size(), 3U);
        table.erase(keys[victim], &trash);
        keys.erase(keys.begin() + static_cast<std::ptrdiff_t>(victim));
        EXPECT_THAT(keysOf(table), ElementsAre(keys[1], keys[0]));
    }
}

TEST(Table, KeepsWhatIsRemovedUntilTheTrashGoes) {
    const auto value = std::make_shared<int>(1);
    CacheTable<std::shared_ptr<int>> table;
    table.insert("a", value);
    table.insert("b", value);
    {
        CacheTable<std::shared_ptr<int>>::Trash trash;
        table.erase("a", &trash);
        table.evict(&trash);
        EXPECT_TRUE(table.empty());
        EXPECT_EQ(value.use_count(), 3);
    }
    EXPECT_EQ(value.use_count(), 1);
    table.insert("c", value);
    table.clear();
    EXPECT_EQ(value.use_count(), 1);
    EXPECT_EQ(table.find("c"), nullptr);
}

TEST(Table, EvictsTheOldestOfABucketAndMovesOnToTheNext) {
    IntTable table;
    const auto third = keysOfBucket(3, 11, 2);
    const auto last = keysOfBucket(10, 11, 1);
    for (const auto& key : third) table.insert(key, 0);
    table.insert(last[0], 0);
    IntTable::Trash trash;
    table.evict(&trash);
    EXPECT_THAT(keysOf(table), ElementsAre(third[1], last[0]));
    table.evict(&trash);  // the place is behind bucket 3 now
    EXPECT_THAT(keysOf(table), ElementsAre(third[1]));
    table.insert(keysOfBucket(0, 11, 1)[0], 0);
    table.evict(&trash);  // and after bucket 10 it is bucket 0
    EXPECT_THAT(keysOf(table), ElementsAre(third[1]));
    table.evict(&trash);
    EXPECT_THAT(keysOf(table), IsEmpty());
    table.evict(&trash);
    EXPECT_THAT(keysOf(table), IsEmpty());
}

TEST(Table, SweepsOnFromItsPlaceAfterAnEmptyRound) {
    IntTable table;
    IntTable::Trash trash;
    table.insert(keysOfBucket(6, 11, 1)[0], 0);
    table.evict(&trash);
    table.evict(&trash);  // nothing there: the place stays at bucket 7
    const auto before = keysOfBucket(2, 11, 1);
    const auto after = keysOfBucket(7, 11, 1);
    table.insert(before[0], 0);
    table.insert(after[0], 0);
    table.evict(&trash);
    EXPECT_THAT(keysOf(table), ElementsAre(before[0]));
}

TEST(Table, BeginsTheSweepAnewWhenTheBucketsBecameFewer) {
    IntTable table;
    IntTable::Trash trash;
    table.insert(keysOfBucket(9, 11, 1)[0], 0);
    table.evict(&trash);
    table.requestBuckets(5);
    ASSERT_EQ(table.bucketCount(), 5U);
    table.insert("a", 0);
    table.evict(&trash);
    EXPECT_TRUE(table.empty());
}

TEST(Table, RaisesTheLoadFactorToItsLeast) {
    IntTable table;
    table.setMaxLoadFactor(0.0005F);
    EXPECT_EQ(table.maxLoadFactor(), 0.001F);
    table.setMaxLoadFactor(2.5F);
    EXPECT_EQ(table.maxLoadFactor(), 2.5F);
}

TEST(Table, RaisesARequestForBucketsToWhatItsEntriesNeed) {
    IntTable table;
    table.requestBuckets(1);
    EXPECT_EQ(table.bucketCount(), 5U);
    for (int i = 0; i < 5; ++i) table.insert(std::to_string(i), i);
    EXPECT_EQ(table.bucketCount(), 5U);
    table.requestBuckets(1);  // 5 entries need 6 buckets
    EXPECT_EQ(table.bucketCount(), 11U);
    table.setMaxLoadFactor(2.0F);
    table.requestBuckets(1);  // now 3
    EXPECT_EQ(table.bucketCount(), 5U);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(table.find(std::to_string(i))->value, i);
}

TEST(Table, GrowsWhenAnInsertionWouldExceedTheLoadFactor) {
    IntTable table;
    std::vector<std::pair<std::size_t, std::size_t>> growth;
    for (int i = 0; i < 100; ++i) {
        const std::size_t before = table.bucketCount();
        table.insert(std::to_string(i), i);
        if (table.bucketCount() != before) growth.emplace_back(table.size(), table.bucketCount());
    }
    using Step = std::pair<std::size_t, std::size_t>;
    EXPECT_THAT(growth, ElementsAre(Step{12, 17}, Step{18, 29}, Step{30, 37}, Step{38, 53}, Step{54, 67},
                                    Step{68, 79}, Step{80, 97}, Step{98, 131}));
}

TEST(Table, DoesNotGrowForAKeyThatIsThere) {
    IntTable table;
    for (int i = 0; i < 11; ++i) table.insert(std::to_string(i), i);
    table.insert("0", 7);
    EXPECT_EQ(table.bucketCount(), 11U);
}

TEST(Table, KeepsChainsFromNewToOldWhenItGrows) {
    IntTable table;
    const auto keys = keysOfBucket(2, 17, 12);  // in many buckets of the 11, in one of the 17
    for (const auto& key : keys) table.insert(key, 0);
    ASSERT_EQ(table.bucketCount(), 17U);
    EXPECT_THAT(keysOf(table), testing::ElementsAreArray(keys.rbegin(), keys.rend()));
}

// The rules said once more, as plainly as possible: all entries in the order of
// their insertion, each with its bucket.
class Model {
  public:
    explicit Model(std::size_t buckets) : m_buckets(buckets) {}

    bool insert(const std::string& key) {
        if (contains(key)) return false;
        m_entries.push_back({key, bucketOf(key, m_buckets)});
        return true;
    }
    bool contains(const std::string& key) const {
        return std::any_of(m_entries.begin(), m_entries.end(), [&](const Entry& e) { return e.key == key; });
    }
    void erase(const std::string& key) {
        m_entries.remove_if([&](const Entry& e) { return e.key == key; });
    }
    // Of the entries nearest behind the place, around the table, the oldest.
    void evict() {
        const auto distance = [this](const Entry& e) { return (e.bucket + m_buckets - m_place) % m_buckets; };
        const auto victim =
            std::min_element(m_entries.begin(), m_entries.end(),
                             [&](const Entry& a, const Entry& b) { return distance(a) < distance(b); });
        if (victim == m_entries.end()) return;
        m_place = (victim->bucket + 1) % m_buckets;
        m_entries.erase(victim);
    }
    std::vector<std::string> inTableOrder() const {
        std::list<Entry> sorted(m_entries.rbegin(), m_entries.rend());
        sorted.sort([](const Entry& a, const Entry& b) { return a.bucket < b.bucket; });  // stable
        std::vector<std::string> keys;
        for (const Entry& entry : sorted) keys.push_back(entry.key);
        return keys;
    }
    std::size_t size() const { return m_entries.size(); }

  private:
    struct Entry {
        std::string key;
        std::size_t bucket;
    };
    const std::size_t m_buckets;
    std::size_t m_place = 0;
    std::list<Entry> m_entries;
};

class TableAgainstModel : public testing::TestWithParam<float> {};

TEST_P(TableAgainstModel, AgreesOver100000Operations) {
    constexpr std::size_t kCapacity = 60;
    IntTable table;
    table.setMaxLoadFactor(GetParam());
    table.requestBuckets(static_cast<std::size_t>(std::ceil(static_cast<float>(kCapacity) / GetParam())));
    Model model(table.bucketCount());
    std::mt19937 random(42);
    for (int step = 0; step < 100'000; ++step) {
        const std::string key = "CN=" + std::to_string(random() % 150);
        IntTable::Trash trash;
        switch (random() % 4) {
            case 0:
                table.erase(key, &trash);
                model.erase(key);
                break;
            case 1:
                ASSERT_EQ(table.find(key) != nullptr, model.contains(key));
                break;
            default:
                if (table.size() >= kCapacity) {
                    table.evict(&trash);
                    model.evict();
                }
                ASSERT_EQ(table.insert(key, step).second, model.insert(key));
        }
        ASSERT_EQ(table.size(), model.size());
        if (step % 500 == 0) {
            ASSERT_EQ(keysOf(table), model.inTableOrder()) << "step " << step;
        }
    }
    EXPECT_EQ(keysOf(table), model.inTableOrder());
}

INSTANTIATE_TEST_SUITE_P(LoadFactors, TableAgainstModel,
                         testing::Values(0.05F, 0.5F, 1.0F, 1.3F, 4.0F, 50.0F));

}  // namespace
