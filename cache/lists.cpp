// SPDX-License-Identifier: Apache-2.0
// The list cache: GUID lists by search key.
#include <algorithm>
#include <utility>

#include "backend/base/log.h"
#include "cache/search_cache.h"
#include "vorn/strings.h"

namespace {

std::size_t bytesOf(const GuidList& guids) {
    std::size_t bytes =
        heapBytes(kSharedRecord + sizeof guids) + heapBytes(guids.capacity() * sizeof guids.front());
    if (guids.hasVerdicts()) bytes += heapBytes(guids.size() * sizeof(GuidList::Verdict));
    for (const std::string& guid : guids) bytes += heapBytes(guid);
    return bytes;
}

}  // namespace

// Here and below: what an operation removes is destroyed after its lock is
// released, so the trash is declared before the lock's guard. An object's last
// share may take a while to free, and an attachment's deleter may take locks of
// its own.

std::string SearchCacheManager::listKey(const std::string& filter, const std::string& baseDn, int scope) {
    std::string key;
    key.reserve(filter.size() + baseDn.size() + 1);  // a scope has one digit
    key.append(filter).append(baseDn);
    std::transform(key.begin(), key.end(), key.begin(), [](char c) { return vorn::lower(c); });
    return key.append(vorn::itoa(scope, 10));
}

int SearchCacheManager::getList(const std::string& key, std::shared_ptr<GuidList>& out) {
    Trash trash;
    const vorn::ReaderLock guard(m_lock);
    m_lock.upgradeToWriterLock();  // every lookup counts, and some remove
    if (!m_enabled) return kMiss;
    return lookUpList(key, out, &trash);
}

int SearchCacheManager::getList(const std::string& filter, const std::string& baseDn, int scope,
                                std::shared_ptr<GuidList>& out) {
    return getList(listKey(filter, baseDn, scope), out);
}

int SearchCacheManager::lookUpList(const std::string& key, std::shared_ptr<GuidList>& out, Trash* trash) {
    const ListTable::Node* node = m_listCache.find(key);
    if (node == nullptr) {
        ++m_counts.misses;
        return kMiss;
    }
    // Before any look at its age: a negative entry is reported as long as it is
    // there, and who needs to know asks negativeExpired.
    if (node->value.guidList->empty()) {
        ++m_counts.negHits;
        return kNegativeHit;
    }
    const std::time_t now = m_environment.clock();
    if (now <= node->value.expiryTime) {
        out = node->value.guidList;
        ++m_counts.hits;
        return kHit;
    }
    expireList(*node, now, trash);
    ++m_counts.expires;
    return kMiss;
}

// Takes along those of the list's own objects that have expired too: nobody else
// is as likely to look for them.
void SearchCacheManager::expireList(const ListTable::Node& list, std::time_t now, Trash* trash) {
    for (const std::string& guid : *list.value.guidList) {
        const ObjTable::Node* object = m_objCache.find(guid);
        if (object != nullptr && now > object->value.expiryTime) m_objCache.erase(guid, &trash->objects);
    }
    m_listCache.erase(list.key, &trash->lists);
}

bool SearchCacheManager::negativeExpired(const std::string& key) {
    const vorn::ReaderLock guard(m_lock);
    if (!m_enabled) return false;
    const ListTable::Node* node = m_listCache.find(key);
    return node != nullptr && node->value.guidList->empty() && m_environment.clock() > node->value.expiryTime;
}

void SearchCacheManager::putList(const std::string& key, std::shared_ptr<GuidList> guids) {
    {
        Trash trash;
        const vorn::WriterLock guard(m_lock);
        if (!m_enabled) return;
        if (!mayKeep(key, *guids)) {
            ++m_counts.refused;
            return;
        }
        // Before any look at the key: storing a known key again in a full table
        // makes room too.
        if (m_listCache.size() >= m_settings.maxLists) overFlowListCache(&trash.lists);
        store(key, std::move(guids), &trash);
    }
    JPrintf("Put GUID list to cache successfully.");
}

bool SearchCacheManager::mayKeep(std::string_view key, const GuidList& guids) const {
    return key.size() <= kMaxKeyBytes && (guids.size() <= kLongList || guids.size() <= m_settings.maxObjects);
}

void SearchCacheManager::store(const std::string& key, std::shared_ptr<GuidList> guids, Trash* trash) {
    if (m_listCache.find(key) != nullptr) return;
    const std::size_t bytes = bytesOf(*guids);
    const unsigned long lifetime = guids->empty() ? m_settings.negTtl : m_settings.ttl;
    if (!makeRoomForBytes(ListTable::entryBytes(key, bytes), trash)) return;
    const auto kept = m_listCache.insert(key, {std::move(guids), expiryAfter(lifetime)}, bytes);
    if (kept.first == nullptr) ++m_counts.refused;
}

void SearchCacheManager::putList(const std::string& filter, const std::string& baseDn, int scope,
                                 std::shared_ptr<GuidList> guids) {
    putList(listKey(filter, baseDn, scope), std::move(guids));
}

void SearchCacheManager::eraseList(const std::string& key) {
    ListTable::Trash trash;
    const vorn::WriterLock guard(m_lock);
    m_listCache.erase(key, &trash);
}

void SearchCacheManager::overFlowListCache(ListTable::Trash* trash) {
    ++m_counts.overflows;
    m_listCache.evict(trash);
}
