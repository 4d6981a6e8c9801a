// SPDX-License-Identifier: Apache-2.0
#include "standard/onlookers.h"

#include <initializer_list>

#include "standard/filter_node.h"

#include "backend/base/slapd.h"

namespace standard {
namespace {

// Each overlay, and slapd itself where it asks, has a call-back for what is found.
bool hasOverlays(const Operation* op) {
    return op->o_callback != nullptr;
}

template <class Judge>
bool someRule(const Operation* op, const Judge& judge) {
    for (const BackendDB* database : {op->o_bd, frontendDB})
        for (const AccessControl* rule = database->be_acl; rule != nullptr; rule = rule->acl_next)
            if (judge(*rule)) return true;
    return false;
}

template <class Judge>
bool someClient(const AccessControl& rule, const Judge& judge) {
    for (const Access* who = rule.acl_access; who != nullptr; who = who->a_next)
        if (judge(*who)) return true;
    return false;
}

bool judgesByContent(const Access& who) {
    return who.a_dn_at != nullptr || who.a_realdn_at != nullptr || who.a_dynacl != nullptr ||
           who.a_set_pat.bv_len != 0 || who.a_group_pat.bv_len != 0;  // the entry may be the group
}

bool judgesByContent(const AccessControl& rule) {
    return rule.acl_filter != nullptr ||
           someClient(rule, [](const Access& who) { return judgesByContent(who); });
}

bool isAnything(const berval& pattern) {
    return pattern.bv_len == 0 || (pattern.bv_len == 1 && *pattern.bv_val == '*');
}

// A name to be put together of parts of the entry's, or the entry's own.
bool isOfEntry(const slap_dn_access& dn) {
    const bool isPattern = dn.a_style == ACL_STYLE_REGEX && !isAnything(dn.a_pat);
    return dn.a_style == ACL_STYLE_SELF || dn.a_self != 0 || dn.a_expand != 0 || isPattern;
}

bool judgesByName(const Access& who) {
    return isOfEntry(who.a_dn) || isOfEntry(who.a_realdn) || who.a_domain_expand != 0;
}

bool judgesByEntry(const AccessControl& rule) {
    return judgesByContent(rule) || rule.acl_dn_style != ACL_STYLE_REGEX || !isAnything(rule.acl_dn_pat) ||
           rule.acl_attrval.bv_val != nullptr ||
           someClient(rule, [](const Access& who) { return judgesByName(who); });
}

// Entries may have it under the name of a subtype, or with an option, which are searched by
// rights of their own.
bool hasOneName(const AttributeType& type) {
    return type.sat_subtypes == nullptr && !slap_syntax_is_binary(type.sat_syntax);
}

}  // namespace

bool lookInside(const Operation* op) {
    return hasOverlays(op) || someRule(op, [](const AccessControl& rule) { return judgesByContent(rule); });
}

bool treatEntriesAlike(const Operation* op) {
    return !hasOverlays(op) && !someRule(op, [](const AccessControl& rule) { return judgesByEntry(rule); });
}

bool allowSearch(Operation* op, Entry* entry, const Filter* filter) {
    if ((filter->f_choice & SLAPD_FILTER_UNDEFINED) != 0 || filter->f_choice == SLAPD_FILTER_COMPUTED)
        return true;
    if (isList(filter)) {
        for (const Filter* one = filter->f_list; one != nullptr; one = one->f_next)
            if (!allowSearch(op, entry, one)) return false;
        return true;
    }
    AttributeDescription* const asserted = assertedIn(filter);
    return asserted != nullptr && hasOneName(*asserted->ad_type) &&
           access_allowed(op, entry, asserted, nullptr, ACL_SEARCH, nullptr) != 0;
}

}  // namespace standard
