// SPDX-License-Identifier: Apache-2.0
// The search cache: which objects a search found, and the objects.
//
// Two tables: lists of GUIDs by search key, and objects by GUID. Both expire
// entries by age and make room, one entry an insertion, by a round-robin sweep
// over their buckets, with no regard to age or use. Together they keep below a bound
// of bytes: where an entry would exceed it, as many make room as it takes.
//
//     SearchCacheManager* cache = SearchCacheManager::GetCacheManager();
//     cache->setMaxBytes(256 << 20);
//     if (!cache->isInitialized()) cache->init(true, 100, 3000, 3600, 300, 0, 1.3F);
//     std::shared_ptr<GuidList> guids;
//     switch (cache->getList(key, guids)) { ... }
//
// Every operation may be called from any thread. Times are seconds.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cache/counts.h"
#include "cache/guid_list.h"
#include "cache/table.h"
#include "vex/handles.h"
#include "vex/vex.h"
#include "vorn/clock.h"
#include "vorn/lock.h"
#include "vorn/thread.h"

// Something that others made from a cached object and keep with it. The cache
// never looks inside; its deleter may be called by any thread, without a lock of
// the cache held.
using CacheAttachment = std::shared_ptr<const void>;

// A cached object, as handed out.
struct CachedObject {
    vex::UniqueObject object;    // the caller's own clone
    CacheAttachment attachment;  // null when nothing is kept with it
    std::uint64_t serial = 0;    // names this very entry, for setAttachment
};

// What a test replaces.
struct SearchCacheEnvironment {
    using Sleep = void (*)(long seconds, long milliseconds, long microseconds, long nanoseconds);

    vorn::Clock clock = vorn::systemTime;
    Sleep sleep = vorn::Thread::sleep;  // between two looks of the watcher
    std::string dumpPrefix = "/var/zanthe/tmp/dirgate.cache.out_";
};

class SearchCacheManager {
  public:
    static constexpr int kHit = 0;
    static constexpr int kNegativeHit = 1;
    static constexpr int kMiss = 2;

    // Longer keys are not cached.
    static constexpr std::size_t kMaxKeyBytes = 4096;

    // The process's one manager, created at the first call.
    static SearchCacheManager* GetCacheManager();
    // Deletes it, if there is one. Nobody may be using it any more.
    static void Destroy();

    // Not initialized. Other managers than the process's own are for tests.
    explicit SearchCacheManager(SearchCacheEnvironment environment = {});
    ~SearchCacheManager();
    SearchCacheManager(const SearchCacheManager&) = delete;
    SearchCacheManager& operator=(const SearchCacheManager&) = delete;

    // Applies the settings; only the first call does anything. Disabled, every
    // other operation does nothing and lookups report a miss. Enabled, sizes the
    // tables and starts the watcher that dumps the cache at SIGUSR1. A load factor
    // that is not more than 0 ends the process. Where memory, or the bound of bytes, has
    // no room for the tables, the cache is disabled, and the error log says so.
    void init(bool enabled, unsigned long maxLists, unsigned long maxObjects, unsigned long ttl,
              unsigned long negTtl, unsigned long logInterval, float loadFactor);

    // The bytes of the heap that the tables may take with all that is in them; 0, as it
    // is at first: any number. Counts from the next insertion on.
    void setMaxBytes(std::uint64_t bytes);

    bool isInitialized() const { return m_initialized; }
    bool isEnabled() const { return m_enabled; }

    // ---- lists

    // The key of a search: filter and base in lower case, the scope in decimal.
    static std::string listKey(const std::string& filter, const std::string& baseDn, int scope);

    // kHit: out shares the cached list, which nobody modifies. kNegativeHit: the
    // search is known to find nothing; also for an entry past its lifetime, see
    // negativeExpired. kMiss: absent, expired or disabled. out is set by a hit only.
    int getList(const std::string& key, std::shared_ptr<GuidList>& out);
    int getList(const std::string& filter, const std::string& baseDn, int scope,
                std::shared_ptr<GuidList>& out);

    // Whether the key has a negative entry that is past its lifetime. Who is told
    // so drops the entry (eraseList) and asks the agent. Counts nothing.
    bool negativeExpired(const std::string& key);

    // Shares the caller's list (never null), which must not be modified afterwards.
    // A key that is there keeps its list and its expiry. A list is not kept when it has
    // more than kLongList GUIDs and is longer than the largest number of objects: most of
    // its objects would have to be looked up again.
    static constexpr std::size_t kLongList = 1000;
    void putList(const std::string& key, std::shared_ptr<GuidList> guids);
    void putList(const std::string& filter, const std::string& baseDn, int scope,
                 std::shared_ptr<GuidList> guids);

    void eraseList(const std::string& key);

    // ---- objects

    // kHit with a clone that the caller frees with vexFreeObject, or kMiss with out
    // left as it was.
    int getObj(const std::string& guid, vexObject** out);
    // The same, with what is kept beside the object, in one step.
    int getObj(const std::string& guid, CachedObject* out);

    // The places in [from, to) of a list whose objects getObj would miss now. Counts
    // nothing and hands out nothing.
    std::vector<std::size_t> missingObjs(const GuidList& guids, std::size_t from, std::size_t to);

    // Stores a clone; the object stays the caller's. A live entry is never replaced.
    void putObj(const char* guid, const vexObject* object);

    // Keeps an attachment with the entry that a getObj handed out under this
    // serial, in place of the one it may have; when that entry has gone, or made
    // way for a newer one, nothing is kept. The cache lets go of the attachment
    // together with the object. bytes: what it takes of the heap.
    void setAttachment(const std::string& guid, std::uint64_t serial, CacheAttachment attachment,
                       std::size_t bytes);

    // ---- statistics and dump

    // The counts as one line when it is due, at most once per log interval; else
    // empty.
    std::string getStatisticsInfo();

    // What the cache holds, as one line.
    std::string getStateInfo();

    // Writes settings and counts to the log, and both tables to a new file. Whoever
    // changes the cache, or counts a lookup, waits for its end.
    void dumpCache();

  private:
    struct CacheListNode {
        std::shared_ptr<GuidList> guidList;  // empty: the search matched nothing
        std::time_t expiryTime;
    };
    struct CacheObjNode {
        vex::UniqueObject object;
        std::time_t expiryTime;
        CacheAttachment attachment;
    };
    struct Settings {
        unsigned long maxLists = 100;
        unsigned long maxObjects = 3000;
        unsigned long ttl = 3600;
        unsigned long negTtl = 300;
        float loadFactor = 1.3F;
    };
    using ListTable = CacheTable<CacheListNode>;
    using ObjTable = CacheTable<CacheObjNode>;
    struct InstanceMutex;
    struct Trash {
        ListTable::Trash lists;
        ObjTable::Trash objects;
    };

    // The watcher's body; manager is a SearchCacheManager. Runs until the sleep
    // ends the thread.
    static void* checkThread(void* manager);

    // All below are called with the lock held.
    bool makeTables();
    void sizeTables();
    void startWatcher();
    int lookUpList(const std::string& key, std::shared_ptr<GuidList>& out, Trash* trash);
    void expireList(const ListTable::Node& list, std::time_t now, Trash* trash);
    bool mayKeep(std::string_view key, const GuidList& guids) const;
    void store(const std::string& key, std::shared_ptr<GuidList> guids, Trash* trash);
    void overFlowListCache(ListTable::Trash* trash);
    void overFlowObjCache(ObjTable::Trash* trash);
    bool makeRoomForObj(const char* guid, ObjTable::Trash* trash);
    bool makeRoomForBytes(std::size_t bytes, Trash* trash);
    std::uint64_t bytesHeld() const { return m_listCache.bytes() + m_objCache.bytes(); }
    std::time_t expiryAfter(unsigned long lifetime) const;
    void logSettings() const;
    void writeDumpFile(const std::string& path) const;
    std::string dumpFileName() const;
    void dumpListCache(std::ostream& out) const;
    void dumpObjCache(std::ostream& out) const;

    static std::atomic<SearchCacheManager*> m_pInstance;
    static InstanceMutex m_instanceMutex;  // libldap's thread mutex; for m_pInstance alone

    // Constant after construction.
    const SearchCacheEnvironment m_environment;

    // Written under the write lock. The atomics have readers without the lock, whose
    // first look either suffices, since a setting changes only once, or is
    // taken again under the lock.
    std::atomic<bool> m_initialized = false;
    std::atomic<bool> m_enabled = false;
    Settings m_settings;
    std::atomic<unsigned long> m_logInterval = 0;
    std::uint64_t m_maxBytes = 0;
    vorn::ReaderWriterLock m_lock;  // guards all members above and below
    std::unique_ptr<vorn::Thread> m_checkThread;
    std::atomic<std::time_t> m_nextLogTime = 0;
    CacheCounts m_counts;
    // Each table has its eviction's place inside: several managers in one process
    // (tests make them) must not move each other's.
    ObjTable m_objCache;
    ListTable m_listCache;
};

// The handler of SIGUSR1: asks for a dump and does nothing else.
void SigHandleDumpCache(int signal);

// Whether a dump is asked for: set by the handler, cleared by the watcher.
extern std::atomic<bool> gDumpCacheRequested;
