// SPDX-License-Identifier: Apache-2.0
#include "search/operation.h"

#include <cstdio>
#include <exception>
#include <string>
#include <utility>

#include "backend/base/failure.h"
#include "backend/base/log.h"
#include "search/sending.h"
#include "translate/filter.h"
#include "vorn/strings.h"

#include "backend/base/slapd.h"

namespace {

std::string_view viewOf(const berval& text) {
    return {text.bv_val, text.bv_len};
}

template <typename Names>
std::string listed(const Names& names) {
    std::string text;
    for (const std::string& name : names) text.append(name).append(" ");
    return text;
}

void logStart(const Filter* filter) try {
    const std::string text = filter_as_string("", filter, nullptr);
    JPrintf("vex search start with filterstr: %s", filterForLog(text).c_str());
} catch (const std::exception& error) {
    JPrintf("filter_as_string failed: %s", error.what());
}

}  // namespace

SearchOperation::SearchOperation(Operation* op, SearchReply* reply) : m_op(op), m_reply(reply) {
    m_request.scope = op->ors_scope;
}

// ---------------------------------------------------------------- prepare

bool SearchOperation::prepare() {
    if (!readFilter()) return false;
    SearchSource::announceView();
    SharedHandle open;
    if (!m_reply->resume(&open)) return false;
    m_source.resume(std::move(open));
    if (const auto rejection = prepareBase(viewOf(m_op->o_req_dn), &m_request))
        return m_reply->reject(*rejection);
    if (JPrintfEnabled()) {
        JPrintf("vex search after translation filter = %s", filterForLog(m_request.filter).c_str());
        JPrintf("vex search using base: %s", m_request.base.c_str());
    }
    return true;
}

bool SearchOperation::readFilter() {
    const bool startIsRead = JPrintfEnabled();
    if (startIsRead) logStart(m_op->ors_filter);
    const auto rejection = prepareFilter(m_op->ors_filter, &m_request);
    if (!rejection) return true;
    // An error in the filter is written for the line of the start too, whether or not
    // somebody reads that line.
    if (!startIsRead) logStart(m_op->ors_filter);
    return m_reply->reject(*rejection);
}

// ---------------------------------------------------------- resume or open

bool SearchOperation::resumeOrOpen() {
    if (!m_source.isResumed()) {
        if (!openSession()) return false;
        if (asksForSuffix()) return answerSuffix();
        prepareFetchByDn(&m_request);
    }
    const AttributeList& attributes = prepareAttributes(m_op->ors_attrs, &m_request);
    prepareCaching(m_source.cache()->isEnabled(), &m_request);
    if (JPrintfEnabled()) logRequest(attributes);
    return true;
}

bool SearchOperation::openSession() {
    const vexCode code = m_source.open();
    if (code != VEX_OK) return fail(Failure::In::Opening, "vexSessionOpen", code);
    JPrintf("vex search scope = %d", m_request.scope);
    return true;
}

// The back-end's own suffix is answered here: an agent knows nothing of it.
bool SearchOperation::asksForSuffix() const {
    return m_request.scope == LDAP_SCOPE_BASE &&
           vorn::equalsIgnoreCase(m_request.base, m_op->o_bd->be_suffix[0].bv_val);
}

bool SearchOperation::answerSuffix() {
    m_source.close();
    const std::string ldif = domainEntryLdif(m_op->o_bd->be_suffix[0].bv_val, viewOf(m_op->o_req_dn));
    const SharedEntry entry = EntryMaker::parse(ldif);
    if (entry == nullptr) {
        std::snprintf(failureText(), kFailureTextBytes, "str2entry Failed, bad ldif: %s", ldif.c_str());
        JPrintfLines("", failureText());
        return m_reply->reject({LDAP_INVALID_SYNTAX, failureText()});
    }
    return m_reply->answerWith(entry.get());
}

void SearchOperation::logRequest(const AttributeList& attributes) const {
    JPrintf("vex search num attrs = %d, req_dn = '%s', filter = %s,\nold attrs = %s,\nnew attrs = %s",
            static_cast<int>(attributes.attributes.size()), m_request.base.c_str(),
            filterForLog(m_request.filter).c_str(), listed(attributes.asked).c_str(),
            listed(attributes.attributes).c_str());
}

// ----------------------------------------------------------- replay or ask

bool SearchOperation::replayOrAsk() {
    if (m_source.isResumed()) {
        m_source.goOn(m_request);
        return true;
    }
    prepareFetchByUid(&m_request);
    m_source.begin(m_request);
    if (m_source.replay(m_request)) return true;
    const vexCode code = m_source.ask(m_request, m_reply->sizeLimit(), m_reply->pageSize());
    if (code == VEX_OK) return true;
    fail(Failure::In::Opening, "vexLdapSearch ", code);
    m_source.close();
    return false;
}

// ---------------------------------------------------------------- deliver

bool SearchOperation::deliver() {
    const bool all = m_request.shown.requested.empty();
    if (!m_reply->begin(all ? nullptr : m_op->ors_attrs)) return false;
    const EntryMaker maker(m_request, m_source.cache());
    ObjectSource& objects = m_source.objects(m_reply->mostObjects());
    FoundObject found;
    vexCode code = VEX_OK;
    while ((code = objects.next(&found)) == VEX_OK) {
        const SearchReply::Delivery delivery = deliverObject(maker, &found);
        if (delivery == SearchReply::Delivery::PageIsFull) return true;
        if (delivery == SearchReply::Delivery::Ended) return false;
    }
    return !objects.isFailure(code) || fail(Failure::In::Objects, "vexLdapSearch ", code);
}

SearchReply::Delivery SearchOperation::deliverObject(const EntryMaker& maker, FoundObject* found) {
    if (!m_reply->wantsMore()) return SearchReply::Delivery::Ended;
    SharedEntry entry;
    vexCode code = VEX_OK;
    switch (maker.make(m_source.session(), found, &entry, &code)) {
        case EntryMaker::Result::Made:
            return m_reply->deliver(std::move(entry));
        case EntryMaker::Result::Skipped:
            return SearchReply::Delivery::GoesOn;
        case EntryMaker::Result::Unreadable:
            fail(Failure::In::Object, "vexGetAttributeStr(DN)", code);
            break;
        case EntryMaker::Result::NotFetched:
            fail(Failure::In::Object, "vexLdapFetch ", code);
            break;
    }
    return SearchReply::Delivery::Ended;
}

// --------------------------------------------------------------- page end

bool SearchOperation::endPage() {
    if (!m_reply->isPaged()) return false;
    m_source.logPage(m_reply->sent(), m_reply->sentInAllPages());
    return m_reply->endPage(m_source.handle());
}

// ----------------------------------------------------------------- finish

void SearchOperation::finish() {
    m_reply->end();
    JPrintf("vex search complete on connection: %lu", m_op->o_connid);
    m_source.finish(*m_op);
}

bool SearchOperation::fail(Failure::In in, const char* context, vexCode code) {
    return m_reply->fail({m_source.session(), context, code, in});
}
