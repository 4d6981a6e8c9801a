#include "search/objects.h"

#include "backend/log.h"
#include "vex/handles.h"

namespace {

bool saysGone(vexCode code) {
    return code == VEX_OBJECT_GONE || code == VEX_NO_SUCH_OBJECT;
}

}  // namespace

vexCode ObjectSource::next(vex::UniqueObject* object) {
    return replays() ? nextFromList(object) : nextFromAgent(object);
}

bool ObjectSource::isFailure(vexCode end) const {
    if (end == VEX_OK || end == VEX_END_OF_RESULTS) return false;
    return !(replays() && saysGone(end));
}

vexCode ObjectSource::nextFromAgent(vex::UniqueObject* object) {
    vexObject* next = nullptr;
    const vexCode code = vexLdapSearchNext(m_handle->search, &next);
    if (code != VEX_OK) return code;
    object->reset(next);
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

vexCode ObjectSource::nextFromList(vex::UniqueObject* object) {
    CacheLdapHandle& list = m_handle->cache;
    if (list.cursor >= list.guidList->size()) return VEX_END_OF_RESULTS;
    const std::string& guid = (*list.guidList)[list.cursor++];
    vexObject* cached = nullptr;
    if (m_cache->getObj(guid, &cached) != SearchCacheManager::kHit) return lookUp(guid, object);
    JPrintf("Find object(%s) from cache successfully.", guid.c_str());
    object->reset(cached);
    return VEX_OK;
}

vexCode ObjectSource::lookUp(const std::string& guid, vex::UniqueObject* object) {
    vexObject* found = nullptr;
    const vexCode code = vexLookupObjectByGuid(m_handle->session(), guid.c_str(), &found);
    if (code != VEX_OK) {
        JPrintf("Fetch object(%s) from vexagent by GUID failed. error code: %d", guid.c_str(), code);
        if (saysGone(code)) {
            JPrintf("Object(%s) not found, force to clean this GUID list cache.", guid.c_str());
            m_cache->eraseList(m_handle->key);
        }
        return code;
    }
    JPrintf("Fetch object(%s) from vexagent by GUID successfully.", guid.c_str());
    m_cache->putObj(guid.c_str(), found);
    object->reset(found);
    return VEX_OK;
}
