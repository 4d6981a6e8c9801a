// SPDX-License-Identifier: Apache-2.0
// The reply to one search: its limits, its pages, and what is told by a policy.
#pragma once

#include <cstddef>

#include "search/limits.h"
#include "search/paging.h"
#include "search/reply_policy.h"

#include "backend/base/slapd_fwd.h"

// Notices what ends a search or a page, and says so to the policy.
class SearchReply {
  public:
    // All of them outlive it.
    SearchReply(Operation* op, SlapReply* rs, ReplyPolicy* policy,
                PagedResults::Cookies cookies = PagedResults::Cookies::Last);

    // Checks the page that is asked for, if one is. *open becomes the search that its
    // cookie names. False when the page is refused: then the request has ended.
    bool resume(SharedHandle* open);

    // The request has ended, as the reason says; false.
    bool reject(const Rejection& why);

    // The request is for this one entry alone, which the filter may rule out; false.
    bool answerWith(Entry* entry);

    // Whether the search goes on nevertheless.
    bool fail(const Failure& failure) { return m_policy->failed(failure); }

    // The objects follow; entries are sent with these attributes (null: all). Sends what
    // the page before has left over; whether that went well.
    bool begin(AttributeName* attributes);

    enum class Delivery { GoesOn, PageIsFull, Ended };

    // Whether another object is wanted: neither a limit nor the client has ended the search.
    bool wantsMore();
    Delivery deliver(SharedEntry entry);

    // What a page needs beside its entries. True when it has been answered and its search
    // stays open for the next: nothing is left to do.
    bool endPage(const SharedHandle& handle);

    void end() { m_policy->end(); }

    bool isPaged() const { return m_paging.requested(); }
    int pageSize() const { return isPaged() ? m_paging.pageSize() : 0; }  // 0: no pages
    int sizeLimit() const { return m_limits.size(); }

    // The entries that this request has sent, and those of its earlier pages with them.
    int sent() const;
    int sentInAllPages() const { return m_paging.earlier() + sent(); }

    // What a page, or the size limit, leaves to be asked for, and the object by which its
    // end is noticed.
    std::size_t mostObjects() const;

  private:
    Operation* const m_op;
    SlapReply* const m_rs;
    ReplyPolicy* const m_policy;
    const Limits m_limits;
    PagedResults m_paging;
    AttributeName* m_attributes = nullptr;  // that entries are sent with; null: all
    SharedEntry m_pending;                  // converted for the page before, or for the next one
};
