// SPDX-License-Identifier: Apache-2.0
#include "standard/extras.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <string_view>

#include "standard/filter_node.h"
#include "vorn/strings.h"

#include "backend/base/slapd.h"

namespace standard {
namespace {

AttributeDescription* describe(const char* name) {
    AttributeDescription* description = nullptr;
    const char* reason = nullptr;
    return slap_str2ad(name, &description, &reason) == LDAP_SUCCESS ? description : nullptr;
}

// Whether a filter asserts anything of the attribute, or of a type that it is of.
bool mentions(const Filter* filter, AttributeDescription* attribute) {
    if (filter == nullptr || choiceOf(filter) == SLAPD_FILTER_COMPUTED) return false;
    if (!isList(filter)) {
        AttributeDescription* const asserted = assertedIn(filter);
        return asserted == nullptr || is_ad_subtype(attribute, asserted) != 0;
    }
    for (const Filter* one = filter->f_list; one != nullptr; one = one->f_next)
        if (mentions(one, attribute)) return true;
    return false;
}

// Whether a set's text has the name as a word, or at the end of one.
bool names(const berval& set, std::string_view name) {
    if (set.bv_val == nullptr) return false;
    const std::string_view text(set.bv_val, set.bv_len);
    for (std::size_t at = 0; at + name.size() <= text.size(); ++at) {
        if (!vorn::equalsIgnoreCase(text.substr(at, name.size()), name)) continue;
        const std::string_view rest = text.substr(at + name.size());
        if (rest.empty() || std::isalnum(static_cast<unsigned char>(rest.front())) == 0) return true;
    }
    return false;
}

bool reads(const Access& by, AttributeDescription* attribute) {
    const AttributeDescription* const read[] = {by.a_dn_at, by.a_realdn_at, by.a_group_at};
    const auto isRead = [attribute](const AttributeDescription* one) {
        return one != nullptr && is_ad_subtype(attribute, const_cast<AttributeDescription*>(one)) != 0;
    };
    return std::any_of(std::begin(read), std::end(read), isRead) ||
           names(by.a_set_pat, {attribute->ad_cname.bv_val, attribute->ad_cname.bv_len});
}

bool anyReads(const AccessControl* rule, AttributeDescription* attribute) {
    if (attribute == nullptr) return false;
    for (; rule != nullptr; rule = rule->acl_next) {
        if (mentions(rule->acl_filter, attribute)) return true;
        for (const Access* by = rule->acl_access; by != nullptr; by = by->a_next)
            if (reads(*by, attribute)) return true;
    }
    return false;
}

// By its name, or that of a supertype.
bool asksByName(const Operation* op, AttributeDescription* attribute) {
    for (const AttributeName* one = op->ors_attrs; one != nullptr && one->an_name.bv_val != nullptr; ++one) {
        if (one->an_desc != nullptr && is_ad_subtype(attribute, one->an_desc) != 0) return true;
    }
    return false;
}

bool asksForAll(const Operation* op, AttributeDescription* attribute) {
    return op->ors_attrs == nullptr || ad_inlist(attribute, op->ors_attrs) != 0;
}

// The schema's; null: it has none.
struct Types {
    AttributeDescription* member = nullptr;
    AttributeDescription* memberOf = nullptr;
};
Types& types() {
    static Types theOnes;
    return theOnes;
}

Extras& wantedByRules() {
    static Extras theOnes;
    return theOnes;
}

}  // namespace

void learnRules(const BackendDB* be) {
    types() = {describe("member"), describe("memberOf")};
    const auto isRead = [be](AttributeDescription* attribute) {
        return anyReads(be->be_acl, attribute) || anyReads(frontendDB->be_acl, attribute);
    };
    Extras& extras = wantedByRules();
    extras.members = extras.members || isRead(types().member);
    extras.memberOf = extras.memberOf || isRead(types().memberOf);
}

Extras extrasFor(AttributeDescription* attribute) {
    const auto isOf = [attribute](AttributeDescription* one) {
        return attribute == nullptr || (one != nullptr && is_ad_subtype(one, attribute) != 0);
    };
    return {isOf(types().member), isOf(types().memberOf)};
}

Extras extrasOf(const Operation* op) {
    const auto [member, memberOf] = types();
    Extras extras = wantedByRules();
    if (member != nullptr && (asksForAll(op, member) || mentions(op->ors_filter, member)))
        extras.members = true;
    if (memberOf != nullptr && (asksByName(op, memberOf) || mentions(op->ors_filter, memberOf)))
        extras.memberOf = true;
    return extras;
}

bool isAboutOthers(const Filter* filter) {
    const auto [member, memberOf] = types();
    return (member != nullptr && mentions(filter, member)) ||
           (memberOf != nullptr && mentions(filter, memberOf)) ||
           mentions(filter, slap_schema.si_ad_hasSubordinates);
}

}  // namespace standard
