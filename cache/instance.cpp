// SPDX-License-Identifier: Apache-2.0
// The process's one manager.
#include "cache/search_cache.h"

extern "C" {
#include "portable.h"

#include "ldap_pvt_thread.h"
}

struct SearchCacheManager::InstanceMutex {
    InstanceMutex() { ldap_pvt_thread_mutex_init(&mutex); }
    ~InstanceMutex() { ldap_pvt_thread_mutex_destroy(&mutex); }
    InstanceMutex(const InstanceMutex&) = delete;
    InstanceMutex& operator=(const InstanceMutex&) = delete;

    // For std::lock_guard.
    void lock() { ldap_pvt_thread_mutex_lock(&mutex); }
    void unlock() { ldap_pvt_thread_mutex_unlock(&mutex); }

    ldap_pvt_thread_mutex_t mutex;
};

std::atomic<SearchCacheManager*> SearchCacheManager::m_pInstance = nullptr;
SearchCacheManager::InstanceMutex SearchCacheManager::m_instanceMutex;

SearchCacheManager* SearchCacheManager::GetCacheManager() {
    if (SearchCacheManager* manager = m_pInstance) return manager;
    const std::lock_guard guard(m_instanceMutex);
    if (m_pInstance == nullptr) m_pInstance = new SearchCacheManager;
    return m_pInstance;
}

void SearchCacheManager::Destroy() {
    const std::lock_guard guard(m_instanceMutex);
    delete m_pInstance.exchange(nullptr);
}
