// SPDX-License-Identifier: Apache-2.0
#include "cache/cache_testing.h"

namespace cachetest {
namespace {

class Objects : public CacheTest {};

TEST_F(Objects, AreClonesOnTheWayInAndOut) {
    start();
    {
        const auto mine = object("ann");
        m_cache->putObj("g", mine.get());
    }  // the caller's own is freed
    vexObject* first = nullptr;
    vexObject* second = nullptr;
    EXPECT_EQ(m_cache->getObj("g", &first), 0);
    EXPECT_EQ(m_cache->getObj("g", &second), 0);
    EXPECT_NE(first, second);
    vexFreeObject(first);
    EXPECT_EQ(cnOf(second), "ann");
    vexFreeObject(second);
    EXPECT_EQ(counts(), "2 0 0 0 0 0");
}

TEST_F(Objects, MissWhenTheTableIsEmptyOrTheGuidIsAbsent) {
    start();
    vexObject* out = reinterpret_cast<vexObject*>(&out);
    EXPECT_EQ(m_cache->getObj("g", &out), 2);
    put("G", "ann");  // GUIDs are compared as bytes
    EXPECT_EQ(m_cache->getObj("g", &out), 2);
    EXPECT_EQ(out, reinterpret_cast<vexObject*>(&out));
    EXPECT_EQ(counts(), "0 0 2 0 0 0");
}

TEST_F(Objects, LiveOnesAreNeitherReplacedNorRefreshed) {
    start();
    put("g", "first");
    now = 1'003'600;
    put("g", "second");
    EXPECT_EQ(get("g"), "first");
    now = 1'003'601;
    EXPECT_EQ(get("g"), "miss");  // expires
    EXPECT_EQ(get("g"), "miss");  // is absent
    EXPECT_EQ(counts(), "1 0 1 1 0 0");
}

TEST_F(Objects, ExpiredOnesAreReplaced) {
    start();
    put("g", "first");
    now = 1'003'601;
    put("g", "second");
    now = 1'003'601 + 3600;
    EXPECT_EQ(get("g"), "second");
    EXPECT_EQ(counts(), "1 0 0 0 0 0");
}

TEST_F(Objects, ThoseThatALookWouldMissAreToldUncounted) {
    start();
    put("old", "ann");
    now = 1'003'601;
    put("b", "bob");
    const GuidList list = {"b", "old", "absent", "b", "last"};
    EXPECT_THAT(m_cache->missingObjs(list, 0, 5), testing::ElementsAre(1, 2, 4));
    EXPECT_THAT(m_cache->missingObjs(list, 2, 4), testing::ElementsAre(2));
    EXPECT_THAT(m_cache->missingObjs(list, 5, 5), testing::IsEmpty());
    now = 1'007'201;
    EXPECT_THAT(m_cache->missingObjs(list, 0, 1), testing::IsEmpty()) << "at the last second of its life";
    now = 1'007'202;
    EXPECT_THAT(m_cache->missingObjs(list, 0, 1), testing::ElementsAre(0));
    EXPECT_EQ(counts(), "0 0 0 0 0 0");
}

TEST_F(Objects, OneOfAFullTableMakesRoom) {
    start({.maxObjects = 1});
    put("a", "ann");
    put("b", "bob");
    EXPECT_EQ(get("a"), "miss");
    EXPECT_EQ(get("b"), "bob");
    EXPECT_EQ(counts(), "1 0 1 0 1 0");
}

TEST_F(Objects, RoomIsMadeBeforeTheLookAtTheGuid) {
    start({.maxObjects = 1});
    put("a", "first");
    put("a", "second");
    EXPECT_EQ(get("a"), "second");
    EXPECT_EQ(counts(), "1 0 0 0 1 0");
}

TEST_F(Objects, FailedClonesOnTheWayOutAreCountedAndLeaveTheEntry) {
    start();
    put("g", "ann");
    standin::answer("ChmCloneObject", 3);
    vexObject* out = nullptr;
    EXPECT_EQ(m_cache->getObj("g", &out), 2);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(get("g"), "ann");
    EXPECT_EQ(counts(), "1 0 0 0 0 1");
}

TEST_F(Objects, FailedClonesOnTheWayInDropTheStore) {
    start({.maxObjects = 1});
    put("a", "ann");
    standin::answer("ChmCloneObject", 3);
    put("b", "bob");
    EXPECT_EQ(get("b"), "miss");
    EXPECT_EQ(get("a"), "miss");  // it made room all the same
    EXPECT_EQ(counts(), "0 0 2 0 1 0");
    put("b", "bob");
    EXPECT_EQ(get("b"), "bob");
}

TEST_F(Objects, OfADisabledCacheAreNotKept) {
    start({.enabled = false});
    put("g", "ann");
    EXPECT_EQ(get("g"), "miss");
    EXPECT_EQ(m_cache->getStatisticsInfo(), "");
}

// What a test attaches, and whether it still lives.
class Attachments : public CacheTest {
  protected:
    CacheAttachment attach(const std::string& guid, std::uint64_t serial) {
        const auto attachment = std::make_shared<const int>(0);
        m_cache->setAttachment(guid, serial, attachment, 0);
        return attachment;
    }
    CachedObject hit(const std::string& guid) {
        CachedObject cached;
        EXPECT_EQ(m_cache->getObj(guid, &cached), 0);
        return cached;
    }
    // Whether the cache lets go of an attachment of "g" in this event.
    template <typename Event>
    bool dropsAtEvent(Event event) {
        put("g", "ann");
        std::weak_ptr<const void> kept = attach("g", hit("g").serial);
        EXPECT_FALSE(kept.expired());
        event();
        return kept.expired();
    }
};

TEST_F(Attachments, ComeWithTheObjectTheyWereMadeFrom) {
    start();
    put("g", "ann");
    put("h", "bob");
    EXPECT_EQ(hit("g").attachment, nullptr);
    const auto attachment = attach("g", hit("g").serial);
    EXPECT_EQ(hit("g").attachment, attachment);
    EXPECT_EQ(hit("h").attachment, nullptr);
    EXPECT_EQ(counts(), "4 0 0 0 0 0");
}

TEST_F(Attachments, GiveWayToNewerOnes) {
    start();
    put("g", "ann");
    std::weak_ptr<const void> first = attach("g", hit("g").serial);
    const auto second = attach("g", hit("g").serial);
    EXPECT_TRUE(first.expired());
    EXPECT_EQ(hit("g").attachment, second);
    m_cache->setAttachment("g", hit("g").serial, nullptr, 0);
    EXPECT_EQ(hit("g").attachment, nullptr);
}

TEST_F(Attachments, OfAnObjectThatMadeWayAreNotKept) {
    start();
    put("g", "first");
    const std::uint64_t serial = hit("g").serial;
    now = 1'003'601;
    put("g", "second");
    attach("g", serial);
    EXPECT_EQ(hit("g").attachment, nullptr);
    attach("absent", 1);
}

TEST_F(Attachments, GoWithTheirObject) {
    start({.maxObjects = 2});
    EXPECT_TRUE(dropsAtEvent([this] {
        now += 3601;
        EXPECT_EQ(get("g"), "miss");
    })) << "expiry";
    EXPECT_TRUE(dropsAtEvent([this] {
        put("h", "bob");
        put("i", "cid");
        put("j", "dan");
        put("k", "eve");
    })) << "eviction";
    m_cache.reset();
    start();
    EXPECT_TRUE(dropsAtEvent([this] {
        now += 3601;
        put("g", "bob");
    })) << "replacement";
    m_cache.reset();
    start();
    EXPECT_TRUE(dropsAtEvent([this] {
        m_cache->putList("key", guids({"g"}));
        now += 3601;
        EXPECT_EQ(list("key"), 2);
    })) << "expiry of a list";
    m_cache.reset();
    start();
    EXPECT_TRUE(dropsAtEvent([this] { m_cache.reset(); })) << "the cache's end";
}

TEST_F(Attachments, InUseOutliveTheirObject) {
    start({.maxObjects = 1});
    put("g", "ann");
    attach("g", hit("g").serial);
    CachedObject cached = hit("g");
    std::weak_ptr<const void> kept = cached.attachment;
    put("h", "bob");
    EXPECT_FALSE(kept.expired());
    cached = {};
    EXPECT_TRUE(kept.expired());
}

// A deleter may take locks of its own, so it must not run inside the cache's.
TEST_F(Attachments, AreFreedWithoutTheCachesLock) {
    start({.maxObjects = 1});
    put("g", "ann");
    int calls = 0;
    const auto deleter = [&](const int* number) {
        delete number;
        ++calls;
        EXPECT_EQ(get("absent"), "miss");  // would not return inside of the lock
    };
    m_cache->setAttachment("g", hit("g").serial, std::shared_ptr<const int>(new int(1), deleter), 0);
    put("h", "bob");  // eviction
    EXPECT_EQ(calls, 1);
    m_cache->setAttachment("h", hit("h").serial, std::shared_ptr<const int>(new int(1), deleter), 0);
    m_cache->setAttachment("h", hit("h").serial, nullptr, 0);
    EXPECT_EQ(calls, 2);
}

TEST_F(Objects, AnExpiredOneIsGoneEvenWhenItsSuccessorCannotBeCloned) {
    start({.ttl = 10});
    put("g", "ann");
    now += 11;
    standin::answer("ChmCloneObject", 3);
    put("g", "bob");
    EXPECT_EQ(get("g"), "miss");
    EXPECT_EQ(counts(), "0 0 1 0 0 0") << "a miss, and nothing that expired";
}

TEST_F(Objects, AStoreIntoAFullTableIsCountedEvenWhenNothingCanMakeRoom) {
    start({.maxObjects = 0});
    put("g", "ann");
    EXPECT_EQ(get("g"), "ann");
    EXPECT_EQ(counts(), "1 0 0 0 1 0");
}

}  // namespace
}  // namespace cachetest
