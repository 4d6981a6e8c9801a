// SPDX-License-Identifier: Apache-2.0
// Entries kept with the cached objects that they were made from.
//
// To make LDIF text of an object and have slapd parse it costs more than all the
// rest of a search. A cached object is immutable, so the same object with the same
// inputs makes the same entry: the one once made is kept with the object, lives and
// dies with it, and is sent again. At most one is kept for each object, the newest.
#pragma once

#include <cstddef>

#include "cache/search_cache.h"
#include "search/handles.h"
#include "search/objects.h"
#include "translate/ldif.h"

// A copy of an entry for others to read, in one block of memory: no thread writes into it
// any more.
SharedEntry sharedCopy(Entry& entry);
// What it takes of the heap.
std::size_t sharedCopyBytes(const Entry& entry);

// Those that one request may use and make. Safe for use by one thread; what it
// keeps is shared by all.
class KeptEntries {
  public:
    // The inputs outlive it. Without a cache, nothing is found and nothing kept.
    KeptEntries(SearchCacheManager* cache, const LdifRequest& inputs) : m_cache(cache), m_inputs(inputs) {}

    // The entry made of this very object with the request's inputs, or null.
    SharedEntry find(const FoundObject& found) const;

    // Keeps a copy of the entry, if the object is a cached one.
    void keep(const FoundObject& found, Entry* entry) const;

  private:
    SearchCacheManager* const m_cache;
    const LdifRequest& m_inputs;
};
