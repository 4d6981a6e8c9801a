// SPDX-License-Identifier: Apache-2.0
// Agent objects as slapd entries.
#pragma once

#include <string>

#include "cache/search_cache.h"
#include "search/handles.h"
#include "search/kept_entries.h"
#include "search/objects.h"
#include "search/request.h"
#include "translate/ldif.h"
#include "vex/handles.h"

#include "backend/base/slapd_fwd.h"

// Makes the entries of one request.
class EntryMaker {
  public:
    // Entries are kept in the cache. Where the conversion's log lines are wanted, and
    // in a search for DNs in the forest, each is made anew.
    EntryMaker(const SearchRequest& request, SearchCacheManager* cache);

    enum class Result {
        Made,
        Skipped,     // the object makes no entry of this search
        Unreadable,  // the object's DN could not be read
        NotFetched,  // the object could not be fetched by its DN
    };

    // Converts the object. A search for DNs in the forest fetches the whole object
    // first, in the found one's place. *code is the agent's for the last two results.
    Result make(vexSession* session, FoundObject* found, SharedEntry* entry, vexCode* code) const;

    // The entry of an LDIF text, or null when it is none. By value: slapd works in
    // the text itself, and the caller's copy is what a complaint shows.
    static SharedEntry parse(std::string ldif);

    // slapd is given no text of an object twice that it has refused: but after this it is.
    static void forgetRefused();

  private:
    Result convert(vexSession* session, FoundObject* found, SharedEntry* entry, vexCode* code) const;
    Result fetchByDn(vexSession* session, vex::UniqueObject* object, vexCode* code) const;
    std::string toLdif(vexSession* session, const vexObject* object, bool* complained) const;
    bool isOtherThanBase(const Entry* entry) const;

    const SearchRequest& m_request;
    const KeptEntries m_keptEntries;
};
