// SPDX-License-Identifier: Apache-2.0
#include "search/objects.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "backend/base/agent_turns.h"
#include "backend/base/log.h"
#include "vex/handles.h"

namespace {

constexpr std::size_t kMostAhead = VEX_MOST_AHEAD;

bool saysGone(vexCode code) {
    return code == VEX_OBJECT_GONE || code == VEX_NO_SUCH_OBJECT;
}

// Reads from the agent's search. The objects of one that may be stored fill the cache.
class AgentObjects final : public ObjectSource {
  public:
    AgentObjects(LdapSearchHandle* handle, SearchCacheManager* cache) : m_handle(handle), m_cache(cache) {}

    vexCode next(FoundObject* found) override;
    bool isFailure(vexCode end) const override { return end != VEX_OK && end != VEX_END_OF_RESULTS; }
    void storeList() override;
    void logPage(int sent, int total) const override;

  private:
    void store(const vexObject* object);

    LdapSearchHandle* const m_handle;
    SearchCacheManager* const m_cache;
    bool m_whole = false;  // the agent has ended the search by itself
};

vexCode AgentObjects::next(FoundObject* found) {
    *found = {};
    vexObject* next = nullptr;
    const auto take = [&] { return vexLdapSearchNext(m_handle->search, &next); };
    // What the last batch has left is here already: nobody waits for it.
    const vexCode code = m_handle->search->isLastPage != 0 ? take() : inTurn(take);
    m_whole = code == VEX_END_OF_RESULTS;
    if (code != VEX_OK) return code;
    found->object.reset(next);
    if (m_handle->storable) store(next);
    return VEX_OK;
}

void AgentObjects::store(const vexObject* object) {
    vex::UniqueString guid;
    if (vex::readAttribute(m_handle->session(), object, AD_OBJECT_GUID_TEXT, &guid) != VEX_OK) return;
    m_handle->cache.guidList->emplace_back(guid.get());
    m_cache->putObj(guid.get(), object);
    JPrintf("Get object(%s) from vexagent and save it to cache succesfully.", guid.get());
}

void AgentObjects::storeList() {
    if (m_whole && m_handle->storable) m_cache->putList(m_handle->key, m_handle->cache.guidList);
}

void AgentObjects::logPage(int sent, int total) const {
    JPrintf(
        "send_paged_response: rs->sr_nentries:%d, total entries:%d, handle->total:%d, "
        "handle->isLastPage:%d",
        sent, total, m_handle->search->total, m_handle->search->isLastPage);
}

// Replays a list from the cache. Objects that are missing there are looked up at the agent.
class ListedObjects final : public ObjectSource {
  public:
    ListedObjects(LdapSearchHandle* handle, SearchCacheManager* cache, std::size_t most)
        : m_handle(handle), m_cache(cache), m_most(most) {}

    vexCode next(FoundObject* found) override;
    bool isFailure(vexCode end) const override;
    void storeList() override {}  // it is the cache's
    void logPage(int sent, int total) const override;

  private:
    void expectFrom(std::size_t place);
    vexCode lookUp(const std::string& guid, FoundObject* found);

    LdapSearchHandle* const m_handle;
    SearchCacheManager* const m_cache;
    const std::size_t m_most;
};

bool ListedObjects::isFailure(vexCode end) const {
    return end != VEX_OK && end != VEX_END_OF_RESULTS && !saysGone(end);
}

void ListedObjects::logPage(int sent, int total) const {
    JPrintf("send_paged_response: rs->sr_nentries:%d, total entries:%d, cacheLdapHandle->guidList->size():%d",
            sent, total, static_cast<int>(m_handle->cache.guidList->size()));
}

vexCode ListedObjects::next(FoundObject* found) {
    *found = {};
    CacheLdapHandle& list = m_handle->cache;
    if (list.cursor >= list.guidList->size()) return VEX_END_OF_RESULTS;
    const std::size_t place = list.cursor++;
    const std::string& guid = (*list.guidList)[place];
    CachedObject cached;
    if (m_cache->getObj(guid, &cached) != SearchCacheManager::kHit) {
        expectFrom(place);
        return lookUp(guid, found);
    }
    JPrintf("Find object(%s) from cache successfully.", guid.c_str());
    *found = {std::move(cached.object), &guid, cached.serial, std::move(cached.attachment)};
    return VEX_OK;
}

// Tells libvex which look-ups will follow the one at this place, so that it need not make
// a round trip for each. Once for many of them, and for none that will not be made.
void ListedObjects::expectFrom(std::size_t place) {
    CacheLdapHandle& list = m_handle->cache;
    if (std::binary_search(list.expected.begin(), list.expected.end(), place)) return;
    const std::size_t left = list.guidList->size() - place;
    const std::size_t window = std::min({left, m_most, kMostAhead});
    list.expected = m_cache->missingObjs(*list.guidList, place, place + window);
    if (list.expected.size() < 2) return;
    std::vector<const char*> guids;
    for (const std::size_t at : list.expected) guids.push_back((*list.guidList)[at].c_str());
    guids.push_back(nullptr);
    vexExpectLookups(m_handle->session(), guids.data());
}

vexCode ListedObjects::lookUp(const std::string& guid, FoundObject* found) {
    vexObject* object = nullptr;
    const vexCode code =
        inTurn([&] { return vexLookupObjectByGuid(m_handle->session(), guid.c_str(), &object); });
    if (code != VEX_OK) {
        JPrintf("Fetch object(%s) from vexagent by GUID failed. error code: %d", guid.c_str(), code);
        if (saysGone(code)) {
            JPrintf("Object(%s) not found, force to clean this GUID list cache.", guid.c_str());
            m_cache->eraseList(m_handle->key);
        }
        return code;
    }
    JPrintf("Fetch object(%s) from vexagent by GUID successfully.", guid.c_str());
    m_cache->putObj(guid.c_str(), object);
    found->object.reset(object);
    return VEX_OK;
}

}  // namespace

std::unique_ptr<ObjectSource> sourceOf(LdapSearchHandle* handle, SearchCacheManager* cache,
                                       std::size_t most) {
    if (handle->search != nullptr) return std::make_unique<AgentObjects>(handle, cache);
    return std::make_unique<ListedObjects>(handle, cache, most);
}
