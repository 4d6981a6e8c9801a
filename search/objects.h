// The objects of one open search, one after the other.
#pragma once

#include <cstdint>
#include <string>

#include "cache/search_cache.h"
#include "search/handles.h"
#include "vex/handles.h"

// An object of a search.
struct FoundObject {
    vex::UniqueObject object;

    // Of one that the cache handed out: its GUID there, its entry's serial, and what
    // is kept with it.
    const std::string* cachedAs = nullptr;
    std::uint64_t serial = 0;
    CacheAttachment kept;
};

// Reads from the agent's search, or replays a list from the cache, where missing
// objects are looked up at the agent. Objects from the agent fill the cache when
// the handle's search may be stored.
class ObjectSource {
  public:
    // most: the request will not take more objects.
    ObjectSource(LdapSearchHandle* handle, SearchCacheManager* cache, std::size_t most)
        : m_handle(handle), m_cache(cache), m_most(most) {}

    // VEX_OK with an object, VEX_END_OF_RESULTS after the last one, or why there
    // are no more objects to be had.
    vexCode next(FoundObject* found);

    // Whether a code that ended the results means that objects are missing from
    // them which the directory may have.
    bool isFailure(vexCode end) const;

  private:
    bool replays() const { return m_handle->search == nullptr; }
    vexCode nextFromAgent(FoundObject* found);
    vexCode nextFromList(FoundObject* found);
    void expectFrom(std::size_t place);
    vexCode lookUp(const std::string& guid, FoundObject* found);
    void store(const vexObject* object);

    LdapSearchHandle* const m_handle;
    SearchCacheManager* const m_cache;
    const std::size_t m_most;
};
