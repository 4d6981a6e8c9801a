// SPDX-License-Identifier: Apache-2.0
// What slapd does with entries, names and values, in small: one rule of comparison, which
// counts neither case nor how many blanks there are, and no syntax but text.
#include <ldap.h>

#include <algorithm>
#include <cstring>
#include <optional>

#include "tests/standin/inside.h"
#include "vorn/strings.h"

#include "tests/standin/slapd_standin.h"

namespace {

std::string_view viewOf(const berval& text) {
    return text.bv_val == nullptr ? std::string_view() : std::string_view(text.bv_val, text.bv_len);
}

berval copyOf(std::string_view text) {
    berval original = {text.size(), const_cast<char*>(text.data())};
    berval copy{};
    ber_dupbv(&copy, &original);
    return copy;
}

std::string normalValue(std::string_view text) {
    std::string result;
    for (const char c : text) {
        const bool isSecondBlank = c == ' ' && (result.empty() || result.back() == ' ');
        if (!isSecondBlank) result += vorn::lower(c);
    }
    if (result.ends_with(' ')) result.pop_back();
    return result;
}

// Nothing for text that is no DN.
std::optional<std::string> rewrittenDn(const berval& dn, bool normal) {
    LDAPDN parts = nullptr;
    berval copy = dn;
    if (ldap_bv2dn(&copy, &parts, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS) return std::nullopt;
    std::string text;
    for (LDAPRDN* rdn = parts; rdn != nullptr && *rdn != nullptr; ++rdn) {
        for (LDAPAVA** one = *rdn; *one != nullptr; ++one) {
            std::string value(viewOf((*one)->la_value));
            if (normal) value = normalValue(value);
            LDAPAVA ava = **one;
            ava.la_value = {value.size(), value.data()};
            LDAPAVA* avas[] = {&ava, nullptr};
            char* written = nullptr;
            ldap_rdn2str(avas, &written, LDAP_DN_FORMAT_LDAPV3);
            const std::string piece = written;
            ldap_memfree(written);
            const std::size_t sign = piece.find('=');
            const std::string name = piece.substr(0, sign);
            text += (text.empty()  ? ""
                     : one == *rdn ? ","
                                   : "+") +
                    (normal ? vorn::lower(name) : name) + piece.substr(sign);
        }
    }
    ldap_dnfree(parts);
    return text;
}

bool isNamed(const AttributeDescription* description, const AttributeDescription* other) {
    return vorn::equalsIgnoreCase(viewOf(description->ad_cname), viewOf(other->ad_cname));
}

// Whether the pieces are in the value, one after the other.
bool isLike(std::string_view value, const Filter* filter) {
    const std::string first = normalValue(viewOf(filter->f_sub_initial));
    const std::string last = normalValue(viewOf(filter->f_sub_final));
    if (!value.starts_with(first)) return false;
    value.remove_prefix(first.size());
    for (const berval* piece = filter->f_sub_any; piece != nullptr && piece->bv_val != nullptr; ++piece) {
        const std::string wanted = normalValue(viewOf(*piece));
        const std::size_t at = value.find(wanted);
        if (at == std::string_view::npos) return false;
        value.remove_prefix(at + wanted.size());
    }
    return value.ends_with(last);
}

int compareAs(ber_tag_t choice, const std::string& value, const Filter* filter) {
    if (choice == LDAP_FILTER_SUBSTRINGS) return isLike(value, filter) ? 1 : 0;
    const std::string asserted = normalValue(viewOf(filter->f_av_value));
    if (choice == LDAP_FILTER_GE) return value >= asserted ? 1 : 0;
    if (choice == LDAP_FILTER_LE) return value <= asserted ? 1 : 0;
    return value == asserted ? 1 : 0;
}

int testAssertion(Entry* entry, const Filter* filter) {
    const ber_tag_t choice = filter->f_choice;
    const AttributeDescription* asserted = choice == LDAP_FILTER_PRESENT      ? filter->f_desc
                                           : choice == LDAP_FILTER_SUBSTRINGS ? filter->f_sub_desc
                                                                              : filter->f_av_desc;
    if (asserted == nullptr) return SLAPD_COMPARE_UNDEFINED;
    for (const Attribute* one = entry->e_attrs; one != nullptr; one = one->a_next) {
        if (!isNamed(one->a_desc, asserted)) continue;
        if (choice == LDAP_FILTER_PRESENT) return LDAP_COMPARE_TRUE;
        for (unsigned i = 0; i < one->a_numvals; ++i)
            if (compareAs(choice, normalValue(viewOf(one->a_vals[i])), filter) != 0) return LDAP_COMPARE_TRUE;
    }
    return LDAP_COMPARE_FALSE;
}

int testList(Entry* entry, const Filter* filter) {
    const int decides = filter->f_choice == LDAP_FILTER_AND ? LDAP_COMPARE_FALSE : LDAP_COMPARE_TRUE;
    int result = filter->f_choice == LDAP_FILTER_AND ? LDAP_COMPARE_TRUE : LDAP_COMPARE_FALSE;
    for (const Filter* one = filter->f_list; one != nullptr; one = one->f_next) {
        const int part = standin::evaluate(entry, one);
        if (part == decides) return part;
        if (part == SLAPD_COMPARE_UNDEFINED) result = part;
    }
    return result;
}

int negation(int result) {
    if (result == SLAPD_COMPARE_UNDEFINED) return result;
    return result == LDAP_COMPARE_TRUE ? LDAP_COMPARE_FALSE : LDAP_COMPARE_TRUE;
}

std::vector<std::string>& hidden() {
    static auto& theOnes = *new std::vector<std::string>;
    return theOnes;
}

}  // namespace

namespace standin {

int evaluate(Entry* entry, const Filter* filter) {
    if ((filter->f_choice & SLAPD_FILTER_UNDEFINED) != 0) return SLAPD_COMPARE_UNDEFINED;
    switch (filter->f_choice) {
        case SLAPD_FILTER_COMPUTED:
            return filter->f_result;
        case LDAP_FILTER_AND:
        case LDAP_FILTER_OR:
            return testList(entry, filter);
        case LDAP_FILTER_NOT:
            return negation(evaluate(entry, filter->f_not));
        case LDAP_FILTER_EXT:
            return SLAPD_COMPARE_UNDEFINED;
        default:
            return testAssertion(entry, filter);
    }
}

void hideFromSearch(std::vector<std::string> attributes) {
    hidden() = std::move(attributes);
}

}  // namespace standin

extern "C" {

int access_allowed_mask(Operation*, Entry*, AttributeDescription* description, berval*, slap_access_t,
                        AccessControlState*, slap_mask_t*) {
    return vorn::stringInList(hidden(), viewOf(description->ad_cname), false) ? 0 : 1;
}

int is_ad_subtype(AttributeDescription* sub, AttributeDescription* super) {
    return isNamed(sub, super) ? 1 : 0;
}

int ad_inlist(AttributeDescription* description, AttributeName* names) {
    for (; names != nullptr && names->an_name.bv_val != nullptr; ++names)
        if (names->an_desc != nullptr && isNamed(description, names->an_desc)) return 1;
    return 0;
}

slap_mask_t slap_attr_flags(AttributeName* names) {
    slap_mask_t flags = SLAP_OPATTRS_NO | SLAP_USERATTRS_NO;
    for (; names != nullptr && names->an_name.bv_val != nullptr; ++names) {
        if (viewOf(names->an_name) == "*") flags |= SLAP_USERATTRS_YES;
        if (viewOf(names->an_name) == "+") flags |= SLAP_OPATTRS_YES;
    }
    return flags;
}

Attribute* attr_find(Attribute* attributes, AttributeDescription* description) {
    while (attributes != nullptr && !isNamed(attributes->a_desc, description))
        attributes = attributes->a_next;
    return attributes;
}

int attr_merge(Entry* entry, AttributeDescription* description, BerVarray values, BerVarray /*normal*/) {
    Attribute** place = &entry->e_attrs;
    while (*place != nullptr) place = &(*place)->a_next;
    *place = static_cast<Attribute*>(std::calloc(1, sizeof(Attribute)));
    (*place)->a_desc = description;
    for (; values->bv_val != nullptr; ++values) {
        berval copy = copyOf(viewOf(*values));
        ber_bvarray_add(&(*place)->a_vals, &copy);
        (*place)->a_numvals++;
    }
    (*place)->a_nvals = (*place)->a_vals;
    return 0;
}

int slap_bv2ad(berval* name, AttributeDescription** description, const char** text) {
    return slap_str2ad(std::string(viewOf(*name)).c_str(), description, text);
}

int ordered_value_validate(AttributeDescription*, berval*, int) {
    return LDAP_SUCCESS;
}

int ordered_value_pretty(AttributeDescription*, berval* value, berval* pretty, void*) {
    *pretty = copyOf(viewOf(*value));
    return LDAP_SUCCESS;
}

int ordered_value_normalize(slap_mask_t, AttributeDescription*, MatchingRule*, berval* value, berval* normal,
                            void*) {
    *normal = copyOf(normalValue(viewOf(*value)));
    return LDAP_SUCCESS;
}

void ch_free(void* memory) {
    ber_memfree(memory);
}

int dnNormalize(slap_mask_t, Syntax*, MatchingRule*, berval* dn, berval* normal, void*) {
    const standin::Inside inside;
    const auto text = rewrittenDn(*dn, true);
    if (text) *normal = copyOf(*text);
    return text ? LDAP_SUCCESS : LDAP_INVALID_SYNTAX;
}

int dnPrettyNormal(Syntax*, berval* dn, berval* pretty, berval* normal, void*) {
    const standin::Inside inside;
    const auto text = rewrittenDn(*dn, false);
    if (!text) return LDAP_INVALID_SYNTAX;
    *pretty = copyOf(*text);
    *normal = copyOf(*rewrittenDn(*dn, true));
    return LDAP_SUCCESS;
}

// The rest of the same text.
void dnParent(berval* dn, berval* parent) {
    std::string_view text = viewOf(*dn);
    std::size_t at = 0;
    while (at < text.size() && text[at] != ',') at += text[at] == '\\' ? 2 : 1;
    at = std::min(at + 1, text.size());
    *parent = {text.size() - at, dn->bv_val + at};
}

int dnIsSuffix(const berval* dn, const berval* suffix) {
    const std::string_view text = viewOf(*dn);
    const std::string_view end = viewOf(*suffix);
    if (end.empty() || text == end) return 1;
    return text.ends_with(end) && text[text.size() - end.size() - 1] == ',' ? 1 : 0;
}

int dnIsSuffixScope(berval* dn, berval* base, int scope) {
    if (dnIsSuffix(dn, base) == 0) return 0;
    berval parent{};
    dnParent(dn, &parent);
    switch (scope) {
        case LDAP_SCOPE_BASE:
            return dn->bv_len == base->bv_len ? 1 : 0;
        case LDAP_SCOPE_ONELEVEL:
            return dn->bv_len != base->bv_len && parent.bv_len == base->bv_len ? 1 : 0;
        case LDAP_SCOPE_SUBORDINATE:
            return dn->bv_len != base->bv_len ? 1 : 0;
        default:
            return 1;
    }
}

int be_issuffix(Backend* database, berval* dn) {
    for (const berval* suffix = database->be_nsuffix; suffix->bv_val != nullptr; ++suffix)
        if (viewOf(*suffix) == viewOf(*dn)) return 1;
    return 0;
}

int slap_compare_entry(Operation*, Entry* entry, AttributeAssertion* assertion) {
    Filter equality{};
    equality.f_choice = LDAP_FILTER_PRESENT;
    equality.f_desc = assertion->aa_desc;
    if (standin::evaluate(entry, &equality) != LDAP_COMPARE_TRUE) return LDAP_NO_SUCH_ATTRIBUTE;
    equality.f_choice = LDAP_FILTER_EQUALITY;
    equality.f_ava = assertion;
    return standin::evaluate(entry, &equality);
}

}  // extern "C"
