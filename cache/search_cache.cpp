// SPDX-License-Identifier: Apache-2.0
#include "cache/search_cache.h"

#include <cmath>
#include <csignal>
#include <limits>
#include <new>
#include <utility>

#include "backend/base/log.h"
#include "vorn/strings.h"

namespace {

// No entry is larger: the tables count an entry's bytes in 32 bits.
constexpr std::size_t kMostBytesOfAnEntry = 1U << 30;

// The division is done in single precision: the bucket counts are part of what
// operators see in the log.
std::size_t bucketRequest(unsigned long entries, float loadFactor) {
    const float request = std::ceil(static_cast<float>(entries) / loadFactor);
    constexpr float kMost = 4294967296.0F;  // above the largest bucket count there is
    return static_cast<std::size_t>(std::min(request, kMost));
}

}  // namespace

SearchCacheManager::SearchCacheManager(SearchCacheEnvironment environment)
    : m_environment(std::move(environment)) {}

SearchCacheManager::~SearchCacheManager() {
    JPrintf("Cleaning up signal check thread...");
    m_checkThread.reset();
    JPrintf("Finished cleaning up signal check thread");
}

void SearchCacheManager::init(bool enabled, unsigned long maxLists, unsigned long maxObjects,
                              unsigned long ttl, unsigned long negTtl, unsigned long logInterval,
                              float loadFactor) {
    const vorn::WriterLock guard(m_lock);
    if (m_initialized) return;
    m_settings = {maxLists, maxObjects, ttl, negTtl, loadFactor};
    m_logInterval = logInterval;
    const bool works = enabled && makeTables();
    m_enabled = works;
    m_initialized = true;
    if (!works) return;

    m_nextLogTime = expiryAfter(logInterval);
    startWatcher();
    JPrintf(
        "Init memory cache successfully. max lists: %u, max objects: %u, ttl: %u, negative ttl: %u, "
        "log interval: %u, list cache bucket number: %u, object cache bucket number: %u",
        static_cast<unsigned>(maxLists), static_cast<unsigned>(maxObjects), static_cast<unsigned>(ttl),
        static_cast<unsigned>(negTtl), static_cast<unsigned>(logInterval),
        static_cast<unsigned>(m_listCache.bucketCount()), static_cast<unsigned>(m_objCache.bucketCount()));
}

// Searches are answered without a cache, too: one that cannot be had is no failure of
// the search that happens to be the first.
bool SearchCacheManager::makeTables() try {
    // Written so that a NaN is refused too.
    if (!(m_settings.loadFactor > 0)) vorn::assertionFailed("loadFactor > 0");
    const auto bytes = [this](unsigned long entries) {
        return ListTable::bucketBytes(primeBuckets(bucketRequest(entries, m_settings.loadFactor)));
    };
    if (m_maxBytes != 0 && bytes(m_settings.maxLists) + bytes(m_settings.maxObjects) > m_maxBytes)
        throw std::bad_alloc();
    sizeTables();
    return true;
} catch (const std::bad_alloc&) {
    JError(
        "The memory cache stays off: no room for its tables. max lists: %lu, max objects: %lu, load factor: "
        "%g, max bytes: %llu",
        m_settings.maxLists, m_settings.maxObjects, static_cast<double>(m_settings.loadFactor),
        static_cast<unsigned long long>(m_maxBytes));
    return false;
}

void SearchCacheManager::sizeTables() {
    m_listCache.setMaxLoadFactor(m_settings.loadFactor);
    m_listCache.requestBuckets(bucketRequest(m_settings.maxLists, m_settings.loadFactor));
    m_objCache.setMaxLoadFactor(m_settings.loadFactor);
    try {
        m_objCache.requestBuckets(bucketRequest(m_settings.maxObjects, m_settings.loadFactor));
    } catch (const std::bad_alloc&) {
        m_listCache.requestBuckets(0);  // of no use alone
        throw;
    }
}

void SearchCacheManager::startWatcher() {
    vorn::ConfigSignalHandler(SIGUSR1, SigHandleDumpCache);
    m_checkThread = std::make_unique<vorn::Thread>();
    m_checkThread->start("checkSignalThread", checkThread, this, 50);
}

void SearchCacheManager::setMaxBytes(std::uint64_t bytes) {
    const vorn::WriterLock guard(m_lock);
    m_maxBytes = bytes;
}

// Makes room for so many more; false when there is none for them at all. Room is made
// in the larger table: what fills it is what there is too much of.
bool SearchCacheManager::makeRoomForBytes(std::size_t bytes, Trash* trash) {
    const std::size_t entries = m_listCache.bytesOfEntries() + m_objCache.bytesOfEntries();
    if (bytes > kMostBytesOfAnEntry || (m_maxBytes != 0 && bytesHeld() - entries + bytes > m_maxBytes)) {
        ++m_counts.refused;
        return false;
    }
    while (m_maxBytes != 0 && bytesHeld() + bytes > m_maxBytes) {
        ++m_counts.evictedForBytes;
        if (m_listCache.bytesOfEntries() > m_objCache.bytesOfEntries())
            m_listCache.evict(&trash->lists);
        else
            m_objCache.evict(&trash->objects);
    }
    return true;
}

// A lifetime too long for the clock lasts as long as the clock does.
std::time_t SearchCacheManager::expiryAfter(unsigned long lifetime) const {
    constexpr std::time_t kLast = std::numeric_limits<std::time_t>::max();
    const std::time_t now = m_environment.clock();
    return lifetime > static_cast<unsigned long>(kLast - now) ? kLast
                                                              : now + static_cast<std::time_t>(lifetime);
}

std::string SearchCacheManager::getStatisticsInfo() {
    // Most calls end here, at no more than three loads and a look at the clock.
    if (m_logInterval == 0 || !m_enabled || m_nextLogTime > m_environment.clock()) return "";
    const vorn::WriterLock guard(m_lock);
    if (m_nextLogTime > m_environment.clock()) return "";  // another thread was first
    m_nextLogTime = expiryAfter(m_logInterval);
    return m_counts.line();
}

std::string SearchCacheManager::getStateInfo() {
    const vorn::ReaderLock guard(m_lock);
    return "cache bytes: " + std::to_string(bytesHeld()) + ", max bytes: " + std::to_string(m_maxBytes) +
           ", lists: " + std::to_string(m_listCache.size()) +
           ", objects: " + std::to_string(m_objCache.size()) +
           ", evicted for bytes: " + std::to_string(m_counts.evictedForBytes) +
           ", refused: " + std::to_string(m_counts.refused);
}
