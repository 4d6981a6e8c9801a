// One search operation.
#pragma once

#include <ctime>
#include <optional>

#include "cache/search_cache.h"
#include "search/entries.h"
#include "search/handles.h"
#include "search/paging.h"
#include "search/request.h"
#include "vex/handles.h"

#include "backend/base/slapd.h"

// The state of one request, and its steps in their order. Each step but finish
// tells whether the request goes on; what it cannot go on with, it has reported
// or put into the reply.
class SearchOperation {
  public:
    SearchOperation(Operation* op, SlapReply* rs);

    bool prepare();       // object type, filter, the cookie's search, base
    bool resumeOrOpen();  // the cookie's session, or one of its own
    bool replayOrAsk();   // a cached list, or an agent search
    bool deliver();       // the entries

    // After deliver: what a page needs beside its entries. True when the page has
    // been answered and its search stays open for the next: nothing is left to do.
    bool endPage();

    void finish();  // the result, statistics, the list for the cache, the handle's end

  private:
    enum class Delivery { GoesOn, PageIsFull, Ended };

    void initializeCache();
    void logStart();
    bool reject(const Rejection& rejection);

    bool openSession();
    bool answerDomainEntry();
    void logRequest();
    void sendIfMatching(Entry* entry);

    bool takeCachedList();
    bool openAgentSearch();

    Delivery deliverObject(const EntryMaker& maker, FoundObject* found);
    bool limitReached();
    bool send(const SharedEntry& entry);

    bool belowSizeLimit() const;
    std::size_t mostObjects() const;
    void storeList();
    void releaseHandle();

    vexSession* session() const;
    void reportFailure(const char* context, vexCode code);

    Operation* const m_op;
    SlapReply* const m_rs;
    SearchCacheManager* const m_cache;
    std::optional<std::time_t> m_deadline;

    SearchRequest m_request;
    PagedResults m_paging;
    bool m_omitDn = false;
    vex::UniqueSession m_session;  // until a handle has it
    SharedHandle m_handle;
    SharedEntry m_pending;  // converted for the page before, or for the next one

    bool m_nothingSent = false;  // set when the object loop begins, cleared by its first entry
    vexCode m_endCode = VEX_OK;  // what ended the object loop
};
