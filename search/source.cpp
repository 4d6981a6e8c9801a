// SPDX-License-Identifier: Apache-2.0
#include "search/source.h"

#include <cstdint>
#include <utility>
#include <vector>

#include "backend/base/agent_turns.h"
#include "backend/base/log.h"
#include "backend/base/settings.h"
#include "translate/map.h"

#include "backend/base/slapd.h"

namespace {

// The domain argument that searches the whole forest.
constexpr char kForest[] = "$";

void setOption(vexSession* session, int option, std::int32_t value) {
    vexSetOption(session, option, &value, sizeof value);
}

void askForZonesView(vexSession* session) {
    if (translation_active(gTranslationMap)) setOption(session, VEX_OPTION_ZONE_VIEW, 1);
}

SearchCacheManager* initializedCache() {
    SearchCacheManager* cache = SearchCacheManager::GetCacheManager();
    if (cache->isInitialized()) return cache;
    cache->setMaxBytes(gCacheMaxBytes);
    cache->init(gCacheEnabled, static_cast<unsigned long>(gCacheMaxLists),
                static_cast<unsigned long>(gCacheMaxObjects), static_cast<unsigned long>(gCacheTTL),
                static_cast<unsigned long>(gCacheNegTTL), static_cast<unsigned long>(gLogInterval),
                gCacheHashLoadFactor);
    return cache;
}

const char* domainOf(const SearchRequest& request) {
    if (request.fetchByDn) return kForest;
    return request.agentType.empty() ? request.zoneDomain.c_str() : "";
}

}  // namespace

SearchSource::SearchSource() : m_cache(initializedCache()) {}

void SearchSource::announceView() {
    askForZonesView(nullptr);
}

vexCode SearchSource::open() {
    vexSession* opened = nullptr;
    const vexCode code = vexSessionOpen(VEX_SESSION_LOCAL, VEX_INTERFACE_LEVEL, &opened);
    m_session.reset(opened);
    if (code == VEX_OK) askForZonesView(opened);
    return code;
}

// Pages with another key than the first one's, or whose first page could not be cached,
// leave the cache alone.
void SearchSource::goOn(const SearchRequest& request) {
    const bool sameSearch = request.cacheable && request.key == m_handle->key;
    m_handle->storable = m_handle->storable && sameSearch;
}

void SearchSource::begin(const SearchRequest& request) {
    setOption(m_session.get(), VEX_OPTION_TYPED, request.agentType.empty() ? 0 : 1);
    m_handle = std::make_shared<LdapSearchHandle>();
    m_handle->key = request.key;
    m_handle->storable = request.cacheable;
}

bool SearchSource::replay(const SearchRequest& request) {
    if (!request.cacheable || !takeList(request)) return false;
    m_handle->cache.session = m_session.release();
    return true;
}

bool SearchSource::takeList(const SearchRequest& request) {
    std::shared_ptr<GuidList> list;
    switch (m_cache->getList(request.key, list)) {
        case SearchCacheManager::kHit:
            JPrintf("Successfully find search result in memory cache. req_dn = '%s', filter = %s, scope = %d",
                    request.base.c_str(), filterForLog(request.filter).c_str(), request.scope);
            m_handle->cache.guidList = std::move(list);
            return true;
        case SearchCacheManager::kNegativeHit:
            // The table reports a negative entry however old it is. One past its
            // lifetime would hide a person created since.
            if (m_cache->negativeExpired(request.key)) {
                m_cache->eraseList(request.key);
                return false;
            }
            m_handle->cache.guidList = std::make_shared<GuidList>();
            return true;
        default:
            return false;
    }
}

vexCode SearchSource::ask(const SearchRequest& request, int sizeLimit, int pageSize) {
    static const char* const dnOnly[] = {LDAP_NO_ATTRS, nullptr};
    if (request.cacheable) m_handle->cache.guidList = std::make_shared<GuidList>();
    const std::vector<const char*> names = namesForAgent(request.shown.requested);
    const char* const* asked = names.data();
    if (request.fetchByDn) {
        asked = dnOnly;
    } else if (request.cacheable) {
        asked = nullptr;  // all: a cached object serves whatever is asked of it later
    }
    const vexCode code = inTurn([&] {
        return vexLdapSearchOpen(m_session.get(), domainOf(request), request.filter.c_str(),
                                 request.base.c_str(), asked, request.scope, sizeLimit, pageSize,
                                 &m_handle->search);
    });
    if (code == VEX_OK) static_cast<void>(m_session.release());  // closed with the handle
    return code;
}

ObjectSource& SearchSource::objects(std::size_t most) {
    m_objects = sourceOf(m_handle.get(), m_cache, most);
    return *m_objects;
}

vexSession* SearchSource::session() const {
    return m_session != nullptr || m_handle == nullptr ? m_session.get() : m_handle->session();
}

void SearchSource::tellCache() {
    const std::string statistics = m_cache->getStatisticsInfo();
    if (!statistics.empty()) {
        JPrintf("%s", statistics.c_str());
        JPrintf("%s", m_cache->getStateInfo().c_str());
    }
    if (m_objects != nullptr) m_objects->storeList();
}

void SearchSource::finish(const Operation& op) {
    tellCache();
    keepForConnection(op);
}

// While a connection has a registered handle, no handle of it is released before
// it closes.
void SearchSource::keepForConnection(const Operation& op) {
    const SharedHandle registered = back_vex_search_handle->getSearchHandle(op.o_connid);
    if (registered == nullptr || m_handle == nullptr || registered == m_handle) return;
    back_vex_search_handle->keep(op.o_connid, peerOf(op), m_handle);
}
