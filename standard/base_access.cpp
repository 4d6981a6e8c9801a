// SPDX-License-Identifier: Apache-2.0
#include "standard/base_access.h"

#include "backend/base/slapd.h"

namespace standard {
namespace {

// A group may be the very entry.
bool looksAtEntry(const Access& who) {
    return who.a_dn_at != nullptr || who.a_realdn_at != nullptr || who.a_group_pat.bv_len != 0 ||
           who.a_set_pat.bv_len != 0 || who.a_dynacl != nullptr;
}

bool looksAtEntry(const AccessControl& rule) {
    if (rule.acl_filter != nullptr) return true;
    for (const Access* who = rule.acl_access; who != nullptr; who = who->a_next)
        if (looksAtEntry(*who)) return true;
    return false;
}

bool namesDecide(const AccessControl* rules) {
    for (const AccessControl* rule = rules; rule != nullptr; rule = rule->acl_next)
        if (looksAtEntry(*rule)) return false;
    return true;
}

}  // namespace

BaseAccess accessToBase(Operation* op, Entry* base) {
    slap_mask_t granted = ACL_PRIV_NONE;
    if (access_allowed_mask(op, base, slap_schema.si_ad_entry, nullptr, ACL_SEARCH, nullptr, &granted) != 0)
        return BaseAccess::Granted;
    return ACL_GRANT(granted, ACL_DISCLOSE) ? BaseAccess::Denied : BaseAccess::Hidden;
}

// Those of the database come first, those of all databases after them.
bool namesDecideAccess(const Operation& op) {
    return namesDecide(op.o_bd->be_acl) && namesDecide(frontendDB->be_acl);
}

}  // namespace standard
