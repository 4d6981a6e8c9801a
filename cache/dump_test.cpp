// SPDX-License-Identifier: Apache-2.0
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>
#include <utility>

#include "cache/cache_testing.h"
#include "vorn/descriptors_testing.h"

namespace cachetest {
namespace {

const std::string kRule(62, '-');
const bool gAskedForAtFirst = gDumpCacheRequested;

template <typename Condition>
bool becomesTrue(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::yield();
    }
    return true;
}

// Each dump goes to a new folder that goes with the test.
class Dump : public CacheTest {
  protected:
    void SetUp() override {
        CacheTest::SetUp();
        setenv("TZ", "UTC0", 1);
        tzset();
        now = 1'709'647'629;  // 2024-03-05 14:07:09
        std::string pattern = (std::filesystem::temp_directory_path() / "cachedump-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        m_folder = pattern;
        m_path = m_folder + "/out_2024-03-05-14-07-09";
    }
    void TearDown() override {
        CacheTest::TearDown();
        std::filesystem::remove_all(m_folder);
    }
    void startHere(const Settings& settings = {}, SearchCacheEnvironment::Sleep sleep = sleepOn) {
        start(settings, {clock, sleep, m_folder + "/out_"});
    }
    std::string dumped() const {
        std::ifstream file(m_path, std::ios::binary);
        std::stringstream text;
        text << file.rdbuf();
        return text.str();
    }
    std::size_t files() const {
        return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(m_folder), {}));
    }
    static std::string header(const std::string& what) {
        return kRule + "\nDumping dirgate memory cache of " + what + "\n" + kRule + "\n";
    }
    static void putOddObject(SearchCacheManager& cache) {
        const vex::UniqueObject odd(standin::makeObject({{"_dn", {"CN=ann,DC=x"}},
                                                         {"objectSid", {std::string("\x01\0\\\xff\n", 5)}},
                                                         {"memberUid", {"a", "b", "", "c"}},
                                                         {"empty", {}},
                                                         {"null", {standin::noData(), "x"}},
                                                         standin::unreadable("lost", VEX_NO_MEMORY)}));
        cache.putObj("guid-1", odd.get());
    }

    std::string m_folder;
    std::string m_path;
};

TEST_F(Dump, FileIsInTheFixedFolder) {
    EXPECT_EQ(SearchCacheEnvironment().dumpPrefix, "/var/zanthe/tmp/dirgate.cache.out_");
}

TEST_F(Dump, OfAnEmptyCacheHasBothHeaders) {
    startHere();
    m_cache->dumpCache();
    EXPECT_EQ(dumped(), header("list") + "\n\n\n" + header("object"));
    struct stat status {};
    ASSERT_EQ(stat(m_path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0400U);
}

TEST_F(Dump, ShowsAnEntryOfEachKind) {
    startHere();
    m_cache->putList("(cn=a)dc=x2", guids({"guid-1", "guid-2"}));
    putOddObject(*m_cache);
    m_cache->dumpCache();
    EXPECT_EQ(dumped(), header("list") +
                            "Key[1]: (cn=a)dc=x2\n"
                            "Cache expiry time: Tue Mar  5 15:07:09 2024\n"
                            "GuidList(s): guid-1,guid-2\n" +
                            kRule + "\n\n\n\n" + header("object") +
                            "Key[1]: guid-1\n"
                            "ADObject: guid-1\n"
                            "Cache expiry time: Tue Mar  5 15:07:09 2024\n"
                            "Object data:\n"
                            "_dn:CN=ann,DC=x\n"
                            "objectSid:\\01\\00\\5c\\ff\\0a\n"
                            "memberUid:a,b,,c\n"
                            "empty:\n"
                            "null:,x\n"
                            "lost:\n" +
                            kRule + "\n");
}

TEST_F(Dump, NumbersEntriesInTheOrderOfTheTable) {
    startHere({.loadFactor = 1000});  // five buckets, long chains
    CacheTable<int> table;
    table.setMaxLoadFactor(1000);
    table.requestBuckets(1);
    for (int i = 0; i < 12; ++i) {
        m_cache->putList(std::to_string(i), guids({}));
        table.insert(std::to_string(i), 0);
    }
    std::string expected = header("list");
    int number = 0;
    table.forEach([&](const auto& node) {
        expected += "Key[" + std::to_string(++number) + "]: " + node.key +
                    "\nCache expiry time: Tue Mar  5 14:12:09 2024\nGuidList(s): \n" + kRule + "\n";
    });
    m_cache->dumpCache();
    EXPECT_EQ(dumped(), expected + "\n\n\n" + header("object"));
}

TEST_F(Dump, LogsSettingsAndCounts) {
    startHere({.logInterval = 9});
    m_cache->putList("key", guids({"g"}));
    list("key");
    const standin::CapturedLog log;
    m_cache->dumpCache();
    const std::vector<std::string> expected = {
        "Starting to dump memory cache setting, statistics and entire content...",
        ("memory cache enabled, max lists: 100, max objects: 3000, ttl: 3600, negative ttl: 300, "
         "load factor: 1.300000, log interval: 9"),
        "cache hits: 1, negHits: 0, misses: 0, expires: 0, overflows: 0, cloneErrs: 0",
        "Starting to dump entire cache content...", "Dump entire cache content complete."};
    ASSERT_EQ(log.records().size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_THAT(log.records()[i], testing::EndsWith(expected[i]));
    }
}

TEST_F(Dump, ShowsTheFirstSettingsAfterASecondInit) {
    startHere({.maxLists = 1, .maxObjects = 2, .ttl = 3, .negTtl = 4, .logInterval = 5, .loadFactor = 6});
    configure({.enabled = false,
               .maxLists = 10,
               .maxObjects = 20,
               .ttl = 30,
               .negTtl = 40,
               .logInterval = 50,
               .loadFactor = 60});
    const standin::CapturedLog log;
    m_cache->dumpCache();
    EXPECT_EQ(log.count("memory cache enabled, max lists: 1, max objects: 2, ttl: 3, negative ttl: 4, load "
                        "factor: 6.000000, log interval: 5"),
              1);
}

TEST_F(Dump, OfADisabledCacheSaysSoAndThatLookupsCountedNothing) {
    startHere({.enabled = false});
    put("g", "ann");
    EXPECT_EQ(get("g"), "miss");
    EXPECT_EQ(list("key"), 2);
    const standin::CapturedLog log;
    m_cache->dumpCache();
    EXPECT_EQ(
        log.count("memory cache not enabled, max lists: 100, max objects: 3000, ttl: 3600, negative ttl: "
                  "300, load factor: 1.300000, log interval: 1"),
        1);
    EXPECT_EQ(log.count("cache hits: 0, negHits: 0, misses: 0, expires: 0, overflows: 0, cloneErrs: 0"), 1);
    EXPECT_EQ(files(), 1U);
}

TEST_F(Dump, ThatIsRefusedIsLoggedAndChangesNothing) {
    startHere();
    m_cache->putList("key", guids({"g"}));
    m_cache->dumpCache();
    const std::string before = dumped();
    const standin::CapturedLog log;
    m_cache->dumpCache();  // in the same second: the file exists
    EXPECT_EQ(log.count("Can't open file " + m_path), 1);
    EXPECT_EQ(log.count("Dump entire cache content complete."), 0);
    EXPECT_EQ(dumped(), before);
    EXPECT_EQ(list("key"), 0);  // the lock is free again
    now += 1;
    m_cache->dumpCache();
    EXPECT_EQ(log.count("Dump entire cache content complete."), 1);
    EXPECT_EQ(files(), 2U);
}

TEST_F(Dump, LeavesNoFileOpen) {
    startHere();
    const std::size_t before = vorn::test::openDescriptors();
    m_cache->dumpCache();
    EXPECT_EQ(vorn::test::openDescriptors(), before);
}

TEST_F(Dump, IsRefusedInAFolderThatOthersCanPrepare) {
    startHere();
    const standin::CapturedLog log;
    ASSERT_EQ(chmod(m_folder.c_str(), 0777), 0);
    m_cache->dumpCache();
    ASSERT_EQ(chmod(m_folder.c_str(), 0700), 0);
    ASSERT_EQ(symlink("/dev/null", m_path.c_str()), 0);
    m_cache->dumpCache();
    EXPECT_EQ(log.count("Can't open file " + m_path), 2);
    EXPECT_EQ(log.count("Dump entire cache content complete."), 0);
}

TEST_F(Dump, EndsItsFileAtANullTextAndCompletesItsLog) {
    startHere({.ttl = ~0UL});  // a year that ctime has no text for
    m_cache->putList("key", guids({"g"}));
    const standin::CapturedLog log;
    m_cache->dumpCache();
    EXPECT_EQ(dumped(), header("list") + "Key[1]: key\nCache expiry time: ");
    EXPECT_EQ(log.count("Dump entire cache content complete."), 1);
}

TEST_F(Dump, EndsItsFileAtANamelessAttribute) {
    startHere();
    const vex::UniqueObject object(standin::makeObject({{"cn", {"a"}}, standin::nameless(), {"sn", {"b"}}}));
    m_cache->putObj("g", object.get());
    m_cache->dumpCache();
    EXPECT_THAT(dumped(), testing::EndsWith("Object data:\ncn:a\n"));
    EXPECT_THAT(standin::calls(),
                testing::Not(testing::Contains(testing::AllOf(testing::HasSubstr("vexGetAttributeBlobList"),
                                                              testing::HasSubstr("object2, null")))));
}

// An exception other than a refusal, from within the dump.
TEST_F(Dump, LogsAFailureAndGoesOn) {
    startHere();
    put("g", "ann");
    standin::onCall("vexGetFirstAttribute", [] { throw std::runtime_error("no luck"); });
    const standin::CapturedLog log;
    m_cache->dumpCache();
    standin::onCall("vexGetFirstAttribute", nullptr);
    EXPECT_EQ(log.count("Exception thrown in the duration of cache dump. Error:[no luck]"), 1);
    EXPECT_EQ(log.count("Dump entire cache content complete."), 1);
    EXPECT_EQ(get("g"), "ann");
}

TEST_F(Dump, TellsLocalTimes) {
    setenv("TZ", "XST-3:30", 1);  // three and a half hours ahead
    tzset();
    startHere({.ttl = 60});
    m_cache->putList("key", guids({"g"}));
    m_cache->dumpCache();
    m_path = m_folder + "/out_2024-03-05-17-37-09";
    EXPECT_THAT(dumped(), testing::HasSubstr("Cache expiry time: Tue Mar  5 17:38:09 2024\n"));
}

// What comes while the dump holds its lock: the dump's look at the clock is the place.
std::function<void()> atTheDump;
std::time_t dumpsClock() {
    if (const auto action = std::exchange(atTheDump, nullptr)) action();
    return now;
}

TEST_F(Dump, LetsOthersRead) {
    start({}, {dumpsClock, sleepOn, m_folder + "/out_"});
    m_cache->putList("key", guids({}));
    bool expired = true;
    // Under a lock of its own that is not shared, this would end the process.
    atTheDump = [&] { expired = m_cache->negativeExpired("key"); };
    m_cache->dumpCache();
    EXPECT_FALSE(expired);
    EXPECT_EQ(files(), 1U);
}

// A look-up counts, and may remove: it asks for the write lock, which a thread that
// reads must not do twice.
using DumpDeath = Dump;
TEST_F(DumpDeath, KeepsLookUpsWaiting) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto duringADump = [&](const std::function<void()>& action) {
        start({}, {dumpsClock, sleepOn, m_folder + "/out_"});
        m_cache->putList("key", guids({"g"}));
        atTheDump = action;
        m_cache->dumpCache();
    };
    EXPECT_DEATH(duringADump([&] { list("key"); }), "");
    EXPECT_DEATH(duringADump([&] { get("g"); }), "");
}

TEST_F(Dump, SaysThatItStartsBeforeItWaits) {
    const standin::CapturedLog log;
    start({}, {dumpsClock, sleepOn, m_folder + "/out_"});
    std::thread dump;
    bool said = false;
    atTheDump = [&] {  // while a list is stored
        dump = std::thread([&] { m_cache->dumpCache(); });
        said = becomesTrue([&] {
            return log.count("Starting to dump memory cache setting, statistics and entire content...") == 1;
        });
    };
    m_cache->putList("key", guids({"g"}));
    dump.join();
    EXPECT_TRUE(said);
    EXPECT_EQ(files(), 1U);
}

// The watcher, with a sleep that tells how often it slept.
std::atomic<int> rounds = 0;
std::atomic<bool> halfASecond = true;
void countedSleep(long seconds, long milliseconds, long microseconds, long nanoseconds) {
    if (seconds != 0 || milliseconds != 500 || microseconds != 0 || nanoseconds != 0) halfASecond = false;
    ++rounds;
    vorn::Thread::sleep(0, 1, 0, 0);
}

// The kernel keeps 15 characters of a thread's name.
bool hasThread(const std::string& name) {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream file(task.path() / "comm");
        std::string found;
        std::getline(file, found);
        if (found == name.substr(0, 15)) return true;
    }
    return false;
}

bool watcherLooksTwice() {
    const int before = rounds;
    return becomesTrue([before] { return rounds >= before + 2; });
}

TEST_F(Dump, ComesAtTheSignal) {
    EXPECT_FALSE(gAskedForAtFirst);
    gDumpCacheRequested = false;
    const standin::CapturedLog log;
    startHere({}, countedSleep);
    ASSERT_TRUE(watcherLooksTwice());
    EXPECT_TRUE(hasThread("checkSignalThread"));
    EXPECT_EQ(log.count("Thread starts to check signal..."), 1);
    EXPECT_EQ(files(), 0U);
    raise(SIGUSR1);
    ASSERT_TRUE(becomesTrue([] { return !gDumpCacheRequested; }));
    EXPECT_EQ(files(), 1U);
    now += 1;
    ASSERT_TRUE(watcherLooksTwice());
    EXPECT_EQ(files(), 1U);
    raise(SIGUSR1);
    ASSERT_TRUE(becomesTrue([] { return !gDumpCacheRequested; }));
    EXPECT_EQ(files(), 2U);
    EXPECT_TRUE(halfASecond);
}

TEST_F(Dump, IsOneForSignalsThatComeTogether) {
    gDumpCacheRequested = false;
    startHere({}, countedSleep);
    put("g", "ann");
    // The second signal comes while the dump runs, and the clock moves on.
    standin::onCall("vexGetFirstAttribute", [] {
        now += 1;
        raise(SIGUSR1);
    });
    raise(SIGUSR1);
    ASSERT_TRUE(becomesTrue([] { return !gDumpCacheRequested; }));
    ASSERT_TRUE(watcherLooksTwice());
    EXPECT_EQ(files(), 1U);
}

}  // namespace
}  // namespace cachetest
