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

}  // namespace

vexCode ObjectSource::next(FoundObject* found) {
    *found = {};
    return replays() ? nextFromList(found) : nextFromAgent(found);
}

bool ObjectSource::isFailure(vexCode end) const {
    if (end == VEX_OK || end == VEX_END_OF_RESULTS) return false;
    return !(replays() && saysGone(end));
}

vexCode ObjectSource::nextFromAgent(FoundObject* found) {
    vexObject* next = nullptr;
    const auto take = [&] { return vexLdapSearchNext(m_handle->search, &next); };
    // What the last batch has left is here already: nobody waits for it.
    const vexCode code = m_handle->search->isLastPage != 0 ? take() : inTurn(take);
    if (code != VEX_OK) return code;
    found->object.reset(next);
    if (m_handle->storable) store(next);
    return VEX_OK;
}

void ObjectSource::store(const vexObject* object) {
    vex::UniqueString guid;
    if (vex::readAttribute(m_handle->session(), object, AD_OBJECT_GUID_TEXT, &guid) != VEX_OK) return;
    m_handle->cache.guidList->emplace_back(guid.get());
    m_cache->putObj(guid.get(), object);
    JPrintf("Get object(%s) from vexagent and save it to cache succesfully.", guid.get());
}

vexCode ObjectSource::nextFromList(FoundObject* found) {
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
void ObjectSource::expectFrom(std::size_t place) {
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

vexCode ObjectSource::lookUp(const std::string& guid, FoundObject* found) {
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
