// SPDX-License-Identifier: Apache-2.0
// Where the objects of one search come from: its session and its open search.
#pragma once

#include <memory>

#include "cache/search_cache.h"
#include "search/handles.h"
#include "search/objects.h"
#include "search/request.h"
#include "vex/handles.h"

#include "backend/base/slapd_fwd.h"

// One of a search's own: in a session that it opens itself, or in that of the open search
// which a page goes on with. Functions that give a code give the agent's.
class SearchSource {
  public:
    // The process's cache is part of it, and takes its settings at the first search.
    SearchSource();

    SearchCacheManager* cache() const { return m_cache; }

    // Says on no session that the zone's view is wanted, on purpose: an agent library may
    // keep it as a default for the sessions to come.
    static void announceView();

    // Goes on with an open search; null: with none.
    void resume(SharedHandle open) { m_handle = std::move(open); }
    bool isResumed() const { return m_handle != nullptr; }

    // Opens a session, a local record and not a connection; closes it.
    vexCode open();
    void close() { m_session.reset(); }

    // A resumed search serves this request.
    void goOn(const SearchRequest& request);

    // Begins a search in the session. It has objects when the one or the other of the next
    // two has succeeded.
    void begin(const SearchRequest& request);
    // Takes the list that the cache has for the request.
    bool replay(const SearchRequest& request);
    // Asks the agent, for so many objects at most and in pages (0: none) of this size.
    vexCode ask(const SearchRequest& request, int sizeLimit, int pageSize);

    // The objects, of which no more than so many will be taken.
    ObjectSource& objects(std::size_t most);
    // As theirs.
    void logPage(int sent, int total) const { m_objects->logPage(sent, total); }

    // Where the objects are read, and what has failed is asked about; may be null.
    vexSession* session() const;
    const SharedHandle& handle() const { return m_handle; }

    // The objects are over: tells the cache what was found, and the log its statistics.
    void tellCache();
    // The request is over: as tellCache, and leaves to the registry what is not to end
    // with it.
    void finish(const Operation& op);

  private:
    bool takeList(const SearchRequest& request);
    void keepForConnection(const Operation& op);

    SearchCacheManager* const m_cache;
    vex::UniqueSession m_session;  // until the handle has it
    SharedHandle m_handle;
    std::unique_ptr<ObjectSource> m_objects;  // of the handle
};
