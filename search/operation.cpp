#include "search/operation.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <limits>
#include <utility>
#include <vector>

#include "backend/base/agent_turns.h"
#include "backend/base/log.h"
#include "backend/base/settings.h"
#include "search/objects.h"
#include "translate/filter.h"
#include "translate/map.h"
#include "vorn/strings.h"

#include "backend/base/failure.h"
#include "backend/base/slapd.h"

namespace {

// The domain argument that searches the whole forest.
constexpr char kForest[] = "$";

// Failure texts outlive the call that makes them: the reply points into one until
// it is sent. A thread works on one request at a time, so each has its own.
thread_local char failureText[kFailureTextBytes];

vexCode setOption(vexSession* session, int option, std::int32_t value) {
    return vexSetOption(session, option, &value, sizeof value);
}

}  // namespace

SearchOperation::SearchOperation(Operation* op, SlapReply* rs)
    : m_op(op), m_rs(rs), m_cache(SearchCacheManager::GetCacheManager()), m_paging(op) {}

// ---------------------------------------------------------------- prepare

bool SearchOperation::prepare() {
    initializeCache();
    const bool startIsRead = JPrintfEnabled();
    if (startIsRead) logStart();
    if (m_op->ors_tlimit != SLAP_NO_LIMIT) m_deadline = m_op->o_time + m_op->ors_tlimit;

    if (const auto rejection = prepareFilter(m_op->ors_filter, &m_request)) {
        // An error in the filter is written for the line of the start too, whether or
        // not somebody reads that line.
        if (!startIsRead) logStart();
        return reject(*rejection);
    }
    // On the session that is not open yet, on purpose: an agent library may keep
    // the zone's view as a default for the sessions to come.
    if (translation_active(gTranslationMap)) setOption(nullptr, VEX_OPTION_ZONE_VIEW, 1);
    if (m_paging.requested()) {
        OpenPage page;
        if (const auto rejection = m_paging.resume(&page)) return reject(*rejection);
        m_handle = std::move(page.handle);
        m_pending = std::move(page.pending);
    }
    if (const auto rejection = prepareBase({m_op->o_req_dn.bv_val, m_op->o_req_dn.bv_len}, &m_request))
        return reject(*rejection);
    m_omitDn = m_request.base.empty() && m_op->ors_scope == LDAP_SCOPE_BASE;
    if (JPrintfEnabled()) {
        JPrintf("vex search after translation filter = %s", filterForLog(m_request.filter).c_str());
        JPrintf("vex search using base: %s", m_request.base.c_str());
    }
    return true;
}

// The cache takes its settings at the first search.
void SearchOperation::initializeCache() {
    if (m_cache->isInitialized()) return;
    m_cache->setMaxBytes(gCacheMaxBytes);
    m_cache->init(gCacheEnabled, static_cast<unsigned long>(gCacheMaxLists),
                  static_cast<unsigned long>(gCacheMaxObjects), static_cast<unsigned long>(gCacheTTL),
                  static_cast<unsigned long>(gCacheNegTTL), static_cast<unsigned long>(gLogInterval),
                  gCacheHashLoadFactor);
}

void SearchOperation::logStart() try {
    const std::string filter = filter_as_string("", m_op->ors_filter, nullptr);
    JPrintf("vex search start with filterstr: %s", filterForLog(filter).c_str());
} catch (const std::exception& error) {
    JPrintf("filter_as_string failed: %s", error.what());
}

bool SearchOperation::reject(const Rejection& rejection) {
    m_rs->sr_err = rejection.result;
    m_rs->sr_text = rejection.text;
    return false;
}

// ---------------------------------------------------------- resume or open

bool SearchOperation::resumeOrOpen() {
    if (m_handle == nullptr) {
        if (!openSession()) return false;
        if (answerDomainEntry()) return false;
        prepareFetchByDn(&m_request);
    }
    prepareAttributes(m_op->ors_attrs, &m_request);
    prepareCaching(m_cache->isEnabled(), m_op->ors_scope, &m_request);
    if (JPrintfEnabled()) logRequest();
    return true;
}

void SearchOperation::logRequest() {
    JPrintf("vex search num attrs = %d, req_dn = '%s', filter = %s,\nold attrs = %s,\nnew attrs = %s",
            static_cast<int>(m_request.attributes.size()), m_request.base.c_str(),
            filterForLog(m_request.filter).c_str(), m_request.oldAttributes.c_str(),
            m_request.newAttributes.c_str());
}

bool SearchOperation::openSession() {
    vexSession* opened = nullptr;
    const vexCode code = vexSessionOpen(VEX_SESSION_LOCAL, VEX_INTERFACE_LEVEL, &opened);
    m_session.reset(opened);
    if (code != VEX_OK) {
        reportFailure("vexSessionOpen", code);
        return false;
    }
    if (translation_active(gTranslationMap)) setOption(opened, VEX_OPTION_ZONE_VIEW, 1);
    JPrintf("vex search scope = %d", m_op->ors_scope);
    return true;
}

// The back-end's own suffix is answered here: an agent knows nothing of it.
bool SearchOperation::answerDomainEntry() {
    const struct berval& suffix = m_op->o_bd->be_suffix[0];
    if (m_op->ors_scope != LDAP_SCOPE_BASE || !vorn::equalsIgnoreCase(m_request.base, suffix.bv_val)) {
        return false;
    }
    m_session.reset();
    const std::string ldif = domainEntryLdif(suffix.bv_val, m_request.firstRdn);
    const SharedEntry entry = EntryMaker::parse(ldif);
    if (entry == nullptr) {
        std::snprintf(failureText, sizeof failureText, "str2entry Failed, bad ldif: %s", ldif.c_str());
        JPrintfLines("", failureText);
        reject({LDAP_INVALID_SYNTAX, failureText});
    } else {
        sendIfMatching(entry.get());
    }
    return true;
}

void SearchOperation::sendIfMatching(Entry* entry) {
    if (test_filter(m_op, entry, m_op->ors_filter) != LDAP_COMPARE_TRUE) {
        m_rs->sr_err = LDAP_NO_SUCH_OBJECT;
        return;
    }
    m_rs->sr_entry = entry;
    m_rs->sr_attrs = m_op->ors_attrs;
    m_rs->sr_flags = 0;
    send_search_entry(m_op, m_rs);
    m_rs->sr_entry = nullptr;
    m_rs->sr_err = LDAP_SUCCESS;
}

// ----------------------------------------------------------- replay or ask

bool SearchOperation::replayOrAsk() {
    if (m_handle != nullptr) {
        const bool sameSearch = m_request.cacheable && m_request.key == m_handle->key;
        m_handle->storable = m_handle->storable && sameSearch;
        return true;
    }
    prepareFetchByUid(m_op->ors_scope, &m_request);
    setOption(m_session.get(), VEX_OPTION_TYPED, m_request.agentType.empty() ? 0 : 1);
    m_handle = std::make_shared<LdapSearchHandle>();
    m_handle->cache.guidList = std::make_shared<GuidList>();
    m_handle->key = m_request.key;
    m_handle->storable = m_request.cacheable;
    if (m_request.cacheable && takeCachedList()) return true;
    return openAgentSearch();
}

bool SearchOperation::takeCachedList() {
    std::shared_ptr<GuidList> list;
    switch (m_cache->getList(m_request.key, list)) {
        case SearchCacheManager::kHit:
            JPrintf("Successfully find search result in memory cache. req_dn = '%s', filter = %s, scope = %d",
                    m_request.base.c_str(), filterForLog(m_request.filter).c_str(), m_op->ors_scope);
            m_handle->cache.guidList = std::move(list);
            break;
        case SearchCacheManager::kNegativeHit:
            // The table reports a negative entry however old it is. One past its
            // lifetime would hide a person created since.
            if (m_cache->negativeExpired(m_request.key)) {
                m_cache->eraseList(m_request.key);
                return false;
            }
            break;
        default:
            return false;
    }
    m_handle->cache.cursor = 0;
    m_handle->cache.session = m_session.release();
    return true;
}

bool SearchOperation::openAgentSearch() {
    static const char* const dnOnly[] = {LDAP_NO_ATTRS, nullptr};
    const std::vector<const char*> names = namesForAgent(m_request.attributes);
    const char* const* asked = names.data();
    if (m_request.fetchByDn) {
        asked = dnOnly;
    } else if (m_request.cacheable) {
        asked = nullptr;  // all: a cached object serves whatever is asked of it later
    }
    std::string domain;
    if (m_request.fetchByDn) {
        domain = kForest;
    } else if (m_request.agentType.empty()) {
        domain = m_request.zoneDomain;
    }
    const vexCode code = inTurn([&] {
        return vexLdapSearchOpen(m_session.get(), domain.c_str(), m_request.filter.c_str(),
                                 m_request.base.c_str(), asked, m_op->ors_scope, m_op->ors_slimit,
                                 m_paging.requested() ? m_paging.pageSize() : 0, &m_handle->search);
    });
    if (code != VEX_OK) {
        reportFailure("vexLdapSearch ", code);
        m_session.reset();
        return false;
    }
    static_cast<void>(m_session.release());  // closed with the handle
    return true;
}

// ---------------------------------------------------------------- deliver

bool SearchOperation::deliver() {
    if (const SharedEntry pending = std::exchange(m_pending, nullptr); pending != nullptr && !send(pending)) {
        return false;
    }

    m_nothingSent = true;
    const EntryMaker maker(m_request, m_op->ors_scope, m_omitDn, m_cache);
    ObjectSource source(m_handle.get(), m_cache, mostObjects());
    FoundObject found;
    while ((m_endCode = source.next(&found)) == VEX_OK) {
        const Delivery delivery = deliverObject(maker, &found);
        if (delivery == Delivery::PageIsFull) return true;
        if (delivery == Delivery::Ended) return false;
    }
    if (m_endCode == kTooManyWait || (gSearchReportErrors && source.isFailure(m_endCode))) {
        reportFailure("vexLdapSearch ", m_endCode);
        m_nothingSent = false;  // what is sent again is the failure
        return false;
    }
    return true;
}

// What a page, or the size limit, leaves to be asked for, and the one by which its end is
// noticed.
std::size_t SearchOperation::mostObjects() const {
    int most = std::numeric_limits<int>::max();
    if (m_paging.requested()) most = std::min(most, m_paging.pageSize());
    if (m_op->ors_slimit != SLAP_NO_LIMIT) most = std::min(most, m_op->ors_slimit);
    return static_cast<std::size_t>(std::max(most - m_rs->sr_nentries, 0)) + 1;
}

SearchOperation::Delivery SearchOperation::deliverObject(const EntryMaker& maker, FoundObject* found) {
    if (m_op->o_abandon) return Delivery::Ended;
    if (limitReached()) return Delivery::Ended;

    SharedEntry entry;
    vexCode code = VEX_OK;
    switch (maker.make(session(), found, &entry, &code)) {
        case EntryMaker::Result::Made:
            break;
        case EntryMaker::Result::Skipped:
            return Delivery::GoesOn;
        case EntryMaker::Result::Unreadable:
            reportFailure("vexGetAttributeStr(DN)", code);
            return Delivery::Ended;
        case EntryMaker::Result::NotFetched:
            reportFailure("vexLdapFetch ", code);
            return Delivery::Ended;
    }
    if (m_paging.requested() && m_rs->sr_nentries == m_paging.pageSize()) {
        m_pending = std::move(entry);
        return Delivery::PageIsFull;
    }
    if (!send(entry)) return Delivery::Ended;
    m_nothingSent = false;
    return Delivery::GoesOn;
}

bool SearchOperation::limitReached() {
    const bool late = m_deadline && std::time(nullptr) > *m_deadline;
    if (belowSizeLimit() && !late) return false;
    m_rs->sr_err = belowSizeLimit() ? LDAP_TIMELIMIT_EXCEEDED : LDAP_SIZELIMIT_EXCEEDED;
    m_rs->sr_text = nullptr;
    send_ldap_result(m_op, m_rs);
    return true;
}

// On later pages slapd hands over what earlier pages left of the limit, so only
// this page's entries count against it.
bool SearchOperation::belowSizeLimit() const {
    return m_op->ors_slimit == SLAP_NO_LIMIT || m_rs->sr_nentries < m_op->ors_slimit;
}

bool SearchOperation::send(const SharedEntry& entry) {
    m_rs->sr_entry = entry.get();
    m_rs->sr_attrs = m_request.attributes.empty() ? nullptr : m_op->ors_attrs;
    m_rs->sr_flags = 0;
    const int sent = send_search_entry(m_op, m_rs);
    m_rs->sr_entry = nullptr;
    if (sent == LDAP_SUCCESS) return true;
    std::snprintf(failureText, sizeof failureText, "send_search_entry Failed, lrc = %d", sent);
    JPrintf("%s", failureText);
    reject({LDAP_INSUFFICIENT_ACCESS, failureText});
    send_ldap_result(m_op, m_rs);
    return false;
}

// --------------------------------------------------------------- page end

bool SearchOperation::endPage() {
    if (!m_paging.requested()) return false;
    const int sent = m_rs->sr_nentries;
    const int total = m_paging.earlier() + sent;
    if (m_handle->search == nullptr) {
        JPrintf(
            "send_paged_response: rs->sr_nentries:%d, total entries:%d, cacheLdapHandle->guidList->size():%d",
            sent, total, static_cast<int>(m_handle->cache.guidList->size()));
    } else {
        JPrintf(
            "send_paged_response: rs->sr_nentries:%d, total entries:%d, handle->total:%d, "
            "handle->isLastPage:%d",
            sent, total, m_handle->search->total, m_handle->search->isLastPage);
    }
    if (sent == 0) return false;

    const bool isLast = sent < m_paging.pageSize();
    const bool continues = sent == m_paging.pageSize() && m_pending != nullptr && belowSizeLimit();
    if (!isLast && !continues) return false;
    OpenPage page{m_handle, std::move(m_pending), 0, {}};
    const bool attached = isLast ? m_paging.answerLast(m_rs) : m_paging.answerOpen(m_rs, &page);
    if (!attached) return false;
    m_rs->sr_err = LDAP_SUCCESS;
    send_ldap_result(m_op, m_rs);
    return continues;
}

// ----------------------------------------------------------------- finish

void SearchOperation::finish() {
    // Nothing found is "no such object" here, save on a page whose predecessors
    // brought entries.
    const bool emptyLaterPage = m_paging.earlier() > 0 && m_rs->sr_nentries == 0;
    if (m_nothingSent && !emptyLaterPage) m_rs->sr_err = LDAP_NO_SUCH_OBJECT;
    // Several paths have sent the result already; clients take the first, and it
    // is sent once more for every one of them.
    send_ldap_result(m_op, m_rs);
    JPrintf("vex search complete on connection: %lu", m_op->o_connid);

    const std::string statistics = m_cache->getStatisticsInfo();
    if (!statistics.empty()) {
        JPrintf("%s", statistics.c_str());
        JPrintf("%s", m_cache->getStateInfo().c_str());
    }
    storeList();
    releaseHandle();
}

// Only a search that the agent has ended by itself is whole.
void SearchOperation::storeList() {
    if (m_handle == nullptr || m_handle->search == nullptr || m_endCode != VEX_END_OF_RESULTS) return;
    if (m_handle->storable) m_cache->putList(m_handle->key, m_handle->cache.guidList);
}

// While a connection has a registered handle, no handle of it is released before
// it closes.
void SearchOperation::releaseHandle() {
    const SharedHandle registered = back_vex_search_handle->getSearchHandle(m_op->o_connid);
    if (m_handle == nullptr) return;
    if (registered != nullptr && registered != m_handle) {
        back_vex_search_handle->keep(m_op->o_connid, m_paging.peer(), m_handle);
    }
    m_handle.reset();
}

vexSession* SearchOperation::session() const {
    return m_handle != nullptr ? m_handle->session() : m_session.get();
}

void SearchOperation::reportFailure(const char* context, vexCode code) {
    vexSession* const failed = m_session != nullptr ? m_session.get() : session();
    send_vex_err_info(failed, context, code, kFailureTextBytes - 1, failureText, m_op, m_rs);
}
