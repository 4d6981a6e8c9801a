// SPDX-License-Identifier: Apache-2.0
#include "standard/reply.h"

#include "search/sending.h"
#include "standard/failure.h"

#include "backend/base/slapd.h"

namespace standard {

StandardReply::StandardReply(Operation* op, SlapReply* rs)
    : m_op(op), m_rs(rs), m_paging(op, PagedResults::Cookies::Each), m_asked(op) {}

void StandardReply::rejected(const Rejection& why) {
    m_result = why;
}

// An entry that access control hides is none.
bool StandardReply::entry(Entry* entry, AttributeName* attributes) {
    switch (sendEntry(m_op, m_rs, m_asked.of(entry), attributes)) {
        case LDAP_SUCCESS:
        case LDAP_INSUFFICIENT_ACCESS:
            return true;
        case LDAP_SIZELIMIT_EXCEEDED:
            limit(LDAP_SIZELIMIT_EXCEEDED);
            return false;
        default:
            m_told = true;  // the connection is gone
            return false;
    }
}

bool StandardReply::failed(const Failure& failure) {
    sendAgentFailure(m_op, m_rs, failure);
    m_told = true;
    return false;
}

bool StandardReply::pageEnds(OpenPage* page) {
    const bool continues = page->pending != nullptr && m_paging.answerOpen(m_rs, page);
    if (!continues) {
        m_paging.answerLast(m_rs);
        return false;
    }
    m_rs->sr_err = LDAP_SUCCESS;
    sendResult(m_op, m_rs);
    return true;
}

void StandardReply::noSuchBase(const Entry* matched) {
    m_result = {LDAP_NO_SUCH_OBJECT, nullptr};
    m_matched = matched;
}

void StandardReply::end() {
    if (m_told) return;
    m_rs->sr_err = m_result.result;
    m_rs->sr_text = m_result.text;
    m_rs->sr_matched = m_matched != nullptr ? m_matched->e_name.bv_val : nullptr;
    sendResult(m_op, m_rs);
    m_rs->sr_matched = nullptr;
}

}  // namespace standard
