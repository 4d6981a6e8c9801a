// SPDX-License-Identifier: Apache-2.0
// The object cache: clones of the agent's objects by GUID.
#include <cstring>
#include <utility>

#include "cache/search_cache.h"

namespace {

// A handle and the buffer that it shares.
std::size_t bytesOf(const vexObject* object) {
    return heapBytes(sizeof(void*)) + heapBytes(vexGetObjectSize(object));
}

}  // namespace

int SearchCacheManager::getObj(const std::string& guid, vexObject** out) {
    CachedObject cached;
    const int code = getObj(guid, &cached);
    if (code == kHit) *out = cached.object.release();
    return code;
}

int SearchCacheManager::getObj(const std::string& guid, CachedObject* out) {
    ObjTable::Trash trash;
    const vorn::ReaderLock guard(m_lock);
    if (!m_enabled) return kMiss;
    m_lock.upgradeToWriterLock();  // every lookup counts, and some remove
    const ObjTable::Node* node = m_objCache.find(guid);
    if (node == nullptr) {
        ++m_counts.misses;
        return kMiss;
    }
    if (node->value.expiryTime < m_environment.clock()) {
        m_objCache.erase(guid, &trash);
        ++m_counts.expires;
        return kMiss;
    }
    vex::UniqueObject clone(ChmCloneObject(node->value.object.get()));
    if (clone == nullptr) {
        ++m_counts.cloneErrs;
        return kMiss;
    }
    *out = {std::move(clone), node->value.attachment, node->serial};
    ++m_counts.hits;
    return kHit;
}

std::vector<std::size_t> SearchCacheManager::missingObjs(const GuidList& guids, std::size_t from,
                                                         std::size_t to) {
    std::vector<std::size_t> places;
    places.reserve(to - from);
    const vorn::ReaderLock guard(m_lock);
    const std::time_t now = m_environment.clock();
    for (std::size_t place = from; place < to; ++place) {
        const ObjTable::Node* node = m_enabled ? m_objCache.find(guids[place]) : nullptr;
        if (node == nullptr || node->value.expiryTime < now) places.push_back(place);
    }
    return places;
}

void SearchCacheManager::putObj(const char* guid, const vexObject* object) {
    Trash trash;
    const vorn::WriterLock guard(m_lock);
    if (!m_enabled || !makeRoomForObj(guid, &trash.objects)) return;
    vex::UniqueObject clone(ChmCloneObject(object));
    if (clone == nullptr) return;
    const std::size_t bytes = bytesOf(object);
    if (std::strlen(guid) > kMaxKeyBytes) {
        ++m_counts.refused;
        return;
    }
    if (!makeRoomForBytes(ObjTable::entryBytes(guid, bytes), &trash)) return;
    const auto kept =
        m_objCache.insert(guid, {std::move(clone), expiryAfter(m_settings.ttl), nullptr}, bytes);
    if (kept.first == nullptr) ++m_counts.refused;
}

// Whether the GUID is without an entry now; a live one is never replaced. A full
// table loses an entry first, even when nothing is stored then.
bool SearchCacheManager::makeRoomForObj(const char* guid, ObjTable::Trash* trash) {
    if (m_objCache.size() >= m_settings.maxObjects) overFlowObjCache(trash);
    const ObjTable::Node* present = m_objCache.find(guid);
    if (present == nullptr) return true;
    if (present->value.expiryTime >= m_environment.clock()) return false;
    m_objCache.erase(guid, trash);
    return true;
}

void SearchCacheManager::setAttachment(const std::string& guid, std::uint64_t serial,
                                       CacheAttachment attachment, std::size_t bytes) {
    Trash trash;
    // The attachment that makes way goes out through the argument, which outlives
    // the lock's guard.
    const vorn::WriterLock guard(m_lock);
    if (!makeRoomForBytes(bytes, &trash)) return;
    ObjTable::Node* node = m_objCache.find(guid);  // only now: it may have made room
    if (node == nullptr || node->serial != serial) return;
    node->value.attachment.swap(attachment);
    m_objCache.setBytesElsewhere(node, bytesOf(node->value.object.get()) + bytes);
}

void SearchCacheManager::overFlowObjCache(ObjTable::Trash* trash) {
    ++m_counts.overflows;
    m_objCache.evict(trash);
}
