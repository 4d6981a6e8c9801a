// SPDX-License-Identifier: Apache-2.0
#include "search/exact_reply.h"

#include <cstdio>

#include "backend/base/agent_turns.h"
#include "backend/base/failure.h"
#include "backend/base/log.h"
#include "backend/base/settings.h"
#include "search/sending.h"

#include "backend/base/slapd.h"

ExactReply::ExactReply(Operation* op, SlapReply* rs) : m_op(op), m_rs(rs), m_limits(*op), m_paging(op) {}

void ExactReply::rejected(const Rejection& why) {
    m_rs->sr_err = why.result;
    m_rs->sr_text = why.text;
}

bool ExactReply::entry(Entry* entry, AttributeName* attributes) {
    const int sent = sendEntry(m_op, m_rs, entry, attributes);
    if (sent == LDAP_SUCCESS) {
        m_nothingFound = false;
        return true;
    }
    std::snprintf(failureText(), kFailureTextBytes, "send_search_entry Failed, lrc = %d", sent);
    JPrintf("%s", failureText());
    rejected({LDAP_INSUFFICIENT_ACCESS, failureText()});
    sendResult(m_op, m_rs);
    return false;
}

void ExactReply::limit(int result) {
    rejected({result, nullptr});
    sendResult(m_op, m_rs);
}

bool ExactReply::failed(const Failure& failure) {
    const bool endedEarly = failure.in == Failure::In::Objects;
    if (endedEarly && failure.code != kTooManyWait && !gSearchReportErrors) return true;
    send_vex_err_info(failure.session, failure.context, failure.code, kFailureTextBytes - 1, failureText(),
                      m_op, m_rs);
    if (endedEarly) m_nothingFound = false;  // what is sent again is the failure
    return false;
}

// Without a control is a page that sent nothing, and one that just held what there was.
bool ExactReply::pageEnds(OpenPage* page) {
    const int sent = m_rs->sr_nentries;
    if (sent == 0) return false;
    const bool isLast = sent < m_paging.pageSize();
    const bool continues =
        sent == m_paging.pageSize() && page->pending != nullptr && m_limits.admitAfter(sent);
    if (!isLast && !continues) return false;
    if (!attachControl(page, continues)) return false;
    m_rs->sr_err = LDAP_SUCCESS;
    sendResult(m_op, m_rs);
    return continues;
}

bool ExactReply::attachControl(OpenPage* page, bool continues) {
    return continues ? m_paging.answerOpen(m_rs, page) : m_paging.answerLast(m_rs);
}

// A later page without entries follows pages that had some: that is a success.
void ExactReply::end() {
    const bool emptyLaterPage = m_paging.earlier() > 0 && m_rs->sr_nentries == 0;
    if (m_nothingFound && !emptyLaterPage) m_rs->sr_err = LDAP_NO_SUCH_OBJECT;
    sendResult(m_op, m_rs);
}
