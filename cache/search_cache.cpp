#include "cache/search_cache.h"

#include <cmath>
#include <csignal>
#include <limits>
#include <utility>

#include "backend/log.h"
#include "vorn/strings.h"

namespace {

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
    if (m_checkThread != nullptr) {
        m_checkThread->kill();
        m_checkThread.reset();
    }
    JPrintf("Finished cleaning up signal check thread");
    m_listCache.clear();
    m_objCache.clear();
}

void SearchCacheManager::init(bool enabled, unsigned long maxLists, unsigned long maxObjects,
                              unsigned long ttl, unsigned long negTtl, unsigned long logInterval,
                              float loadFactor) {
    const vorn::WriterLock guard(m_lock);
    if (m_initialized) return;
    m_maxLists = maxLists;
    m_maxObjects = maxObjects;
    m_ttl = ttl;
    m_negTtl = negTtl;
    m_loadFactor = loadFactor;
    m_logInterval = logInterval;
    m_enabled = enabled;
    m_initialized = true;
    if (!enabled) return;

    m_nextLogTime = expiryAfter(logInterval);
    m_hits = m_negHits = m_misses = m_expires = m_overflows = m_cloneErrs = 0;
    sizeTables();
    startWatcher();
    JPrintf(
        "Init memory cache successfully. max lists: %u, max objects: %u, ttl: %u, negative ttl: %u, "
        "log interval: %u, list cache bucket number: %u, object cache bucket number: %u",
        static_cast<unsigned>(maxLists), static_cast<unsigned>(maxObjects), static_cast<unsigned>(ttl),
        static_cast<unsigned>(negTtl), static_cast<unsigned>(logInterval),
        static_cast<unsigned>(m_listCache.bucketCount()), static_cast<unsigned>(m_objCache.bucketCount()));
}

void SearchCacheManager::sizeTables() {
    // Written so that a NaN is refused too.
    if (!(m_loadFactor > 0)) vorn::assertionFailed("loadFactor > 0");
    m_listCache.setMaxLoadFactor(m_loadFactor);
    m_listCache.requestBuckets(bucketRequest(m_maxLists, m_loadFactor));
    m_objCache.setMaxLoadFactor(m_loadFactor);
    m_objCache.requestBuckets(bucketRequest(m_maxObjects, m_loadFactor));
}

void SearchCacheManager::startWatcher() {
    vorn::ConfigSignalHandler(SIGUSR1, SigHandleDumpCache);
    m_checkThread = std::make_unique<vorn::Thread>();
    m_checkThread->start("checkSignalThread", checkThread, this, 50);
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
    return statisticsLine();
}

std::string SearchCacheManager::statisticsLine() const {
    return "cache hits: " + std::to_string(m_hits) + ", negHits: " + std::to_string(m_negHits) +
           ", misses: " + std::to_string(m_misses) + ", expires: " + std::to_string(m_expires) +
           ", overflows: " + std::to_string(m_overflows) + ", cloneErrs: " + std::to_string(m_cloneErrs);
}
