// SPDX-License-Identifier: Apache-2.0
// What a node of slapd's filter trees is.
#pragma once

#include "backend/base/slapd_fwd.h"

#include "backend/base/slapd.h"

namespace standard {

// slapd sets a further bit in a node when its schema does not know the attribute.
inline ber_tag_t choiceOf(const Filter* node) {
    return node->f_choice & SLAPD_FILTER_MASK;
}

inline bool isList(const Filter* node) {
    const ber_tag_t choice = choiceOf(node);
    return choice == LDAP_FILTER_AND || choice == LDAP_FILTER_OR || choice == LDAP_FILTER_NOT;
}

// The attribute of an assertion. Null for lists, for what slapd has computed, and for one that
// is about attributes of any name.
inline AttributeDescription* assertedIn(const Filter* node) {
    switch (choiceOf(node)) {
        case LDAP_FILTER_PRESENT:
            return node->f_desc;
        case LDAP_FILTER_SUBSTRINGS:
            return node->f_sub_desc;
        case LDAP_FILTER_EXT:
            return node->f_mr_desc;
        case LDAP_FILTER_EQUALITY:
        case LDAP_FILTER_APPROX:
        case LDAP_FILTER_GE:
        case LDAP_FILTER_LE:
            return node->f_av_desc;
        default:
            return nullptr;
    }
}

}  // namespace standard
