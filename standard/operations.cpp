// SPDX-License-Identifier: Apache-2.0
#include "standard/operations.h"

#include <algorithm>
#include <exception>
#include <string>
#include <string_view>

#include "backend/base/log.h"
#include "backend/base/settings.h"
#include "search/sending.h"
#include "standard/entries.h"
#include "standard/extras.h"
#include "standard/failure.h"
#include "standard/kinds_of_map.h"
#include "standard/schema.h"
#include "standard/spellings.h"

#include "backend/base/slapd.h"

namespace standard {
namespace {

// Where the administrator looks: slapd has not detached yet.
void complain(const std::string& text) {
    JError("%s", text.c_str());
    ldap_log_printf(nullptr, LDAP_DEBUG_ANY, "%s\n", text.c_str());
}

bool isLeaf(const Entry* entry) {
    const Attribute* structural = attr_find(entry->e_attrs, slap_schema.si_ad_structuralObjectClass);
    if (structural == nullptr) return true;
    const std::string_view name(structural->a_vals[0].bv_val, structural->a_vals[0].bv_len);
    return std::none_of(usedKinds().begin(), usedKinds().end(), [name](const Kind& kind) {
        return kind.sort == Sort::Other && kind.structural == name;
    });
}

// slapd knows no other name of an entry here.
SharedEntry findByNormalName(Operation* op, const berval& ndn, const Extras& extras, vexCode* code) {
    if (const auto spelled = spellings().of({ndn.bv_val, ndn.bv_len})) {
        const berval dn = {spelled->size(), const_cast<char*>(spelled->data())};
        SharedEntry found = findEntry(op, dn, ndn, extras, code);
        if (found != nullptr || *code != VEX_OK) return found;
    }
    return findEntry(op, ndn, ndn, extras, code);
}

}  // namespace

int openDatabase(BackendDB* be, ConfigReply* /*reply*/) try {
    static const vorn::Properties none;
    KindsOfMap made = kindsOf(gTranslationMap != nullptr ? *gTranslationMap : none, slapdSchema());
    for (const std::string& warning : made.warnings) complain(warning);
    useKinds(std::move(made.kinds));
    learnRules(be);
    return 0;
} catch (const std::exception& error) {
    complain(error.what());
    return 1;
}

int compare(Operation* op, SlapReply* rs) try {
    vexCode code = VEX_OK;
    const SharedEntry entry = findEntry(op, op->o_req_dn, op->o_req_ndn, {true, true}, &code);
    if (code != VEX_OK) {
        sendAgentFailure(op, rs, {nullptr, "vexLdapSearch ", code, Failure::In::Opening});
        return rs->sr_err;
    }
    SharedEntry matched;
    if (entry != nullptr) {
        rs->sr_err = slap_compare_entry(op, entry.get(), op->orc_ava);
    } else {
        rs->sr_err = LDAP_NO_SUCH_OBJECT;
        matched = findMatched(op, op->o_req_dn, op->o_req_ndn);
        rs->sr_matched = matched != nullptr ? matched->e_name.bv_val : nullptr;
    }
    sendResult(op, rs);
    rs->sr_matched = nullptr;
    if (rs->sr_err == LDAP_COMPARE_TRUE || rs->sr_err == LDAP_COMPARE_FALSE) rs->sr_err = LDAP_SUCCESS;
    return rs->sr_err;
} catch (const std::exception& error) {
    return sendInternalError(op, rs, error);
}

int refuseWrite(Operation* op, SlapReply* rs) {
    send_ldap_error(op, rs, LDAP_UNWILLING_TO_PERFORM,
                    "this directory is read here: change the object at a domain controller");
    return rs->sr_err;
}

int getEntry(Operation* op, berval* ndn, ObjectClass* objectClass, AttributeDescription* attribute,
             int /*forWriting*/, Entry** entry) try {
    vexCode code = VEX_OK;
    const SharedEntry found = findByNormalName(op, *ndn, extrasFor(attribute), &code);
    if (code != VEX_OK) return LDAP_OTHER;
    if (found == nullptr) return LDAP_NO_SUCH_OBJECT;
    const bool fits = (objectClass == nullptr || is_entry_objectclass(found.get(), objectClass, 0) != 0) &&
                      (attribute == nullptr || attr_find(found->e_attrs, attribute) != nullptr);
    if (!fits) return LDAP_NO_SUCH_ATTRIBUTE;
    *entry = entry_dup(found.get());
    return LDAP_SUCCESS;
} catch (const std::exception& error) {
    JError("vex fetch: %s", error.what());
    return LDAP_OTHER;
}

int releaseEntry(Operation* /*op*/, Entry* entry, int /*forWriting*/) {
    entry_free(entry);
    return LDAP_SUCCESS;
}

int hasSubordinates(Operation* op, Entry* entry, int* has) try {
    *has = LDAP_COMPARE_FALSE;
    if (isLeaf(entry)) return LDAP_SUCCESS;
    const Wanted wanted{entry->e_name, entry->e_nname, LDAP_SCOPE_ONELEVEL, nullptr, {}};
    EntrySearch search(op, wanted);
    if (search.open() != VEX_OK) return LDAP_OTHER;
    vexCode code = VEX_OK;
    if (search.next(&code) != nullptr) *has = LDAP_COMPARE_TRUE;
    return code == VEX_OK || code == VEX_END_OF_RESULTS ? LDAP_SUCCESS : LDAP_OTHER;
} catch (const std::exception& error) {
    JError("vex search: %s", error.what());
    return LDAP_OTHER;
}

int operational(Operation* op, SlapReply* rs) {
    const bool wanted =
        SLAP_OPATTRS(rs->sr_attr_flags) || ad_inlist(slap_schema.si_ad_hasSubordinates, rs->sr_attrs) != 0;
    if (rs->sr_entry == nullptr || !wanted) return LDAP_SUCCESS;
    int has = LDAP_COMPARE_FALSE;
    if (const int failure = hasSubordinates(op, rs->sr_entry, &has); failure != LDAP_SUCCESS) return failure;
    Attribute** last = &rs->sr_operational_attrs;
    while (*last != nullptr) last = &(*last)->a_next;
    *last = slap_operational_hasSubordinate(has == LDAP_COMPARE_TRUE);
    return LDAP_SUCCESS;
}

}  // namespace standard
