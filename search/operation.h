// SPDX-License-Identifier: Apache-2.0
// The steps of one search operation.
#pragma once

#include "search/entries.h"
#include "search/reply.h"
#include "search/request.h"
#include "search/source.h"

#include "backend/base/slapd_fwd.h"

// The steps of one request, in their order. Each but the last two tells whether the
// request goes on; where it does not, the reply has been told why.
class SearchOperation {
  public:
    SearchOperation(Operation* op, SearchReply* reply);

    bool prepare();       // object type, filter, the cookie's search, base
    bool resumeOrOpen();  // the cookie's session, or one of its own
    bool replayOrAsk();   // a cached list, or an agent search
    bool deliver();       // the entries

    // After deliver: what a page needs beside its entries. True when the page has been
    // answered and its search stays open for the next: nothing is left to do.
    bool endPage();

    void finish();  // the result, statistics, the list for the cache, the handle's end

  private:
    bool readFilter();
    void logRequest(const AttributeList& attributes) const;
    bool openSession();
    bool asksForSuffix() const;
    bool answerSuffix();
    SearchReply::Delivery deliverObject(const EntryMaker& maker, FoundObject* found);
    bool fail(Failure::In in, const char* context, vexCode code);

    Operation* const m_op;
    SearchReply* const m_reply;
    SearchSource m_source;
    SearchRequest m_request;
};
