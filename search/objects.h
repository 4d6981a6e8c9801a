// SPDX-License-Identifier: Apache-2.0
// The objects of one open search, one after the other.
#pragma once

#include <cstdint>
#include <memory>
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

// Where one request's objects come from. For use by one thread.
class ObjectSource {
  public:
    virtual ~ObjectSource() = default;

    // VEX_OK with an object, VEX_END_OF_RESULTS after the last one, or why there
    // are no more objects to be had.
    virtual vexCode next(FoundObject* found) = 0;

    // Whether a code that ended the objects means that some are missing which the
    // directory may have.
    virtual bool isFailure(vexCode end) const = 0;

    // Tells the cache what has been found, if that is whole.
    virtual void storeList() = 0;

    // Tells the log how far a page has come, which has sent so many entries: with
    // those of the pages before it, total.
    virtual void logPage(int sent, int total) const = 0;
};

// That of an open search: the agent, or a list in the cache. most: the request will not
// take more objects. The handle outlives it.
std::unique_ptr<ObjectSource> sourceOf(LdapSearchHandle* handle, SearchCacheManager* cache, std::size_t most);
