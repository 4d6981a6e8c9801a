// SPDX-License-Identifier: Apache-2.0
#include <exception>
#include <utility>

#include "search/reply.h"
#include "standard/base_access.h"
#include "standard/entries.h"
#include "standard/extras.h"
#include "standard/failure.h"
#include "standard/onlookers.h"
#include "standard/operations.h"
#include "standard/reply.h"

#include "backend/base/slapd.h"

namespace standard {
namespace {

bool isLasting(const Operation* op) {
    return treatEntriesAlike(op) && !isAboutOthers(op->ors_filter);
}

// The steps of one search. Each tells whether it goes on.
class Search {
  public:
    Search(Operation* op, SlapReply* rs)
        : m_op(op),
          m_policy(op, rs),
          m_reply(op, rs, &m_policy, PagedResults::Cookies::Each),
          m_wanted{op->o_req_dn, op->o_req_ndn, op->ors_scope, op->ors_filter, extrasOf(op), isLasting(op)},
          m_entries(op, m_wanted) {}

    void run();

  private:
    bool baseIsOpen();
    bool assertionHolds();
    bool resumeOrOpen();
    bool deliver();
    void checkBase();
    void tellMissingBase();
    void deliverBase(SharedEntry base);
    bool fail(Failure::In in, vexCode code) {
        return m_reply.fail({m_entries.session(), "vexLdapSearch ", code, in});
    }

    Operation* const m_op;
    StandardReply m_policy;
    SearchReply m_reply;
    const Wanted m_wanted;
    EntrySearch m_entries;
    SharedEntry m_matched;
    bool m_resumed = false;
    bool m_found = false;
};

void Search::run() {
    const bool delivered = baseIsOpen() && assertionHolds() && resumeOrOpen() && deliver();
    if (delivered && m_reply.isPaged() && m_reply.endPage(m_entries.handle())) return;
    m_reply.end();
    m_entries.finish();
}

// Where the rules say no, it may be because there is no such entry.
bool Search::baseIsOpen() {
    Entry name{};
    name.e_name = m_op->o_req_dn;
    name.e_nname = m_op->o_req_ndn;
    if (namesDecideAccess(*m_op) && accessToBase(m_op, &name) == BaseAccess::Granted) return true;
    vexCode code = VEX_OK;
    const SharedEntry base = findEntry(m_op, m_op->o_req_dn, m_op->o_req_ndn, m_wanted.extras, &code);
    if (code != VEX_OK) return fail(Failure::In::Opening, code);
    if (base == nullptr) {
        tellMissingBase();
        return false;
    }
    const BaseAccess access = accessToBase(m_op, base.get());
    if (access == BaseAccess::Granted) return true;
    return m_reply.reject(
        {access == BaseAccess::Denied ? LDAP_INSUFFICIENT_ACCESS : LDAP_NO_SUCH_OBJECT, nullptr});
}

// RFC 4528: the base must be as the client believes.
bool Search::assertionHolds() {
    if (get_assert(m_op) <= SLAP_CONTROL_IGNORED) return true;
    vexCode code = VEX_OK;
    const SharedEntry base = findEntry(m_op, m_op->o_req_dn, m_op->o_req_ndn, {true, true}, &code);
    if (code != VEX_OK) return fail(Failure::In::Opening, code);
    auto* const assertion = static_cast<Filter*>(get_assertion(m_op));
    if (base == nullptr || test_filter(m_op, base.get(), assertion) == LDAP_COMPARE_TRUE) return true;
    return m_reply.reject({LDAP_ASSERTION_FAILED, nullptr});
}

bool Search::resumeOrOpen() {
    SharedHandle open;
    if (!m_reply.resume(&open)) return false;
    m_resumed = open != nullptr;
    if (m_resumed) {
        return m_entries.resume(std::move(open)) ||
               m_reply.reject({LDAP_UNWILLING_TO_PERFORM, "paged results cookie is of another search"});
    }
    const vexCode code = m_entries.open();
    if (code == kFilterRefused)
        return m_reply.reject({LDAP_UNWILLING_TO_PERFORM, "the search filter has too many parts"});
    return code == VEX_OK || fail(Failure::In::Opening, code);
}

bool Search::deliver() {
    if (!m_reply.begin(m_op->ors_attrs)) return false;
    for (;;) {
        vexCode code = VEX_OK;
        SharedEntry entry = m_entries.next(&code);
        if (entry == nullptr) {
            if (code != VEX_END_OF_RESULTS) return fail(Failure::In::Objects, code);
            break;
        }
        m_found = true;
        if (!m_reply.wantsMore()) return false;
        switch (m_reply.deliver(std::move(entry))) {
            case SearchReply::Delivery::GoesOn:
                continue;
            case SearchReply::Delivery::PageIsFull:
                return true;
            case SearchReply::Delivery::Ended:
                return false;
        }
    }
    checkBase();
    return !m_policy.isDecided();
}

// Who finds something has a base. Otherwise it is looked for, and what exists above it.
void Search::checkBase() {
    if (m_found || m_resumed) return;
    vexCode code = VEX_OK;
    SharedEntry base = findEntry(m_op, m_op->o_req_dn, m_op->o_req_ndn, m_wanted.extras, &code);
    if (code != VEX_OK) {
        fail(Failure::In::Opening, code);
        return;
    }
    if (base != nullptr) {
        deliverBase(std::move(base));
        return;
    }
    tellMissingBase();
}

void Search::tellMissingBase() {
    m_matched = findMatched(m_op, m_op->o_req_dn, m_op->o_req_ndn);
    m_policy.noSuchBase(m_matched.get());
}

// It may have been found by another name than the one that the search asked for.
void Search::deliverBase(SharedEntry base) {
    const bool wanted = m_wanted.scope == LDAP_SCOPE_BASE &&
                        test_filter(m_op, base.get(), m_wanted.filter) == LDAP_COMPARE_TRUE;
    if (wanted && m_reply.wantsMore()) m_reply.deliver(std::move(base));
}

}  // namespace

int search(Operation* op, SlapReply* rs) try {
    Search(op, rs).run();
    return rs->sr_err;
} catch (const std::exception& error) {
    return sendInternalError(op, rs, error);
}

}  // namespace standard
