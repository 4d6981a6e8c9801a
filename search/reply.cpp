// SPDX-License-Identifier: Apache-2.0
#include "search/reply.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "search/sending.h"

#include "backend/base/slapd.h"

SearchReply::SearchReply(Operation* op, SlapReply* rs, ReplyPolicy* policy, PagedResults::Cookies cookies)
    : m_op(op), m_rs(rs), m_policy(policy), m_limits(*op), m_paging(op, cookies) {}

bool SearchReply::resume(SharedHandle* open) {
    if (!isPaged()) return true;
    OpenPage page;
    if (const auto rejection = m_paging.resume(&page)) return reject(*rejection);
    *open = std::move(page.handle);
    m_pending = std::move(page.pending);
    return true;
}

bool SearchReply::reject(const Rejection& why) {
    m_policy->rejected(why);
    return false;
}

bool SearchReply::answerWith(Entry* entry) {
    if (test_filter(m_op, entry, m_op->ors_filter) != LDAP_COMPARE_TRUE)
        return reject({LDAP_NO_SUCH_OBJECT, nullptr});
    sendEntry(m_op, m_rs, entry, m_op->ors_attrs);
    return reject({LDAP_SUCCESS, nullptr});
}

bool SearchReply::begin(AttributeName* attributes) {
    m_attributes = attributes;
    const SharedEntry pending = std::exchange(m_pending, nullptr);
    if (pending != nullptr && !m_policy->entry(pending.get(), m_attributes)) return false;
    m_policy->objectsFollow();
    return true;
}

bool SearchReply::wantsMore() {
    if (m_op->o_abandon) {
        m_policy->abandoned();
        return false;
    }
    const auto limit = m_limits.reachedAfter(sent());
    if (limit) m_policy->limit(*limit);
    return !limit;
}

SearchReply::Delivery SearchReply::deliver(SharedEntry entry) {
    if (isPaged() && sent() == pageSize()) {
        m_pending = std::move(entry);
        return Delivery::PageIsFull;
    }
    return m_policy->entry(entry.get(), m_attributes) ? Delivery::GoesOn : Delivery::Ended;
}

bool SearchReply::endPage(const SharedHandle& handle) {
    OpenPage page{handle, std::move(m_pending), 0, {}};
    return m_policy->pageEnds(&page);
}

int SearchReply::sent() const {
    return m_rs->sr_nentries;
}

std::size_t SearchReply::mostObjects() const {
    int most = std::numeric_limits<int>::max();
    if (isPaged()) most = std::min(most, pageSize());
    if (sizeLimit() != SLAP_NO_LIMIT) most = std::min(most, sizeLimit());
    return static_cast<std::size_t>(std::max(most - sent(), 0)) + 1;
}
