// SPDX-License-Identifier: Apache-2.0
#include "standard/references.h"

#include <algorithm>
#include <string_view>

#include "standard/entries.h"
#include "standard/names.h"
#include "vorn/strings.h"

#include "backend/base/slapd.h"

namespace standard {
namespace {

bool holdsDns(const AttributeDescription* attribute) {
    return attribute != nullptr &&
           attribute->ad_type->sat_equality == slap_schema.si_mr_distinguishedNameMatch;
}

// "*" and "@class" have no description.
bool asksForDns(const AttributeName& name) {
    if (name.an_desc != nullptr) return holdsDns(name.an_desc);
    return name.an_name.bv_val[0] == '*' || name.an_name.bv_val[0] == '@';
}

bool clientAsksForDns(const Operation* op) {
    if (op->ors_attrs == nullptr) return true;
    for (const AttributeName* one = op->ors_attrs; one->an_name.bv_val != nullptr; ++one)
        if (asksForDns(*one)) return true;
    return false;
}

bool assertsDns(const Filter* filter) {
    switch (filter->f_choice & SLAPD_FILTER_MASK) {
        case LDAP_FILTER_AND:
        case LDAP_FILTER_OR:
        case LDAP_FILTER_NOT:
            for (const Filter* one = filter->f_list; one != nullptr; one = one->f_next)
                if (assertsDns(one)) return true;
            return false;
        case LDAP_FILTER_PRESENT:
        case SLAPD_FILTER_COMPUTED:
            return false;
        case LDAP_FILTER_SUBSTRINGS:
            return holdsDns(filter->f_sub_desc);
        case LDAP_FILTER_EXT:
            return filter->f_mr_desc == nullptr || holdsDns(filter->f_mr_desc);
        default:
            return (filter->f_choice & SLAPD_FILTER_UNDEFINED) == 0 && holdsDns(filter->f_av_desc);
    }
}

// Renamed are objects whose real names begin with "CN=". Those of the schema, which
// objectCategory names, are none.
bool mayBeRenamed(const std::string& dn) {
    static constexpr std::string_view kSchema = ",CN=Schema,CN=Configuration,";
    if (!vorn::startsWithIgnoreCase(dn, "CN=")) return false;
    const auto same = [](char a, char b) { return vorn::lower(a) == vorn::lower(b); };
    return std::search(dn.begin(), dn.end(), kSchema.begin(), kSchema.end(), same) == dn.end();
}

bool isReference(const ShownValues& values) {
    return values.attribute->match == Match::Dn && values.attribute->form == Form::Same &&
           std::any_of(values.values.begin(), values.values.end(), mayBeRenamed);
}

}  // namespace

References::References(const Operation* op, const Filter* filter)
    : m_wanted(filter == nullptr || op->o_tag != LDAP_REQ_SEARCH || clientAsksForDns(op) ||
               assertsDns(filter)) {}

bool References::areIn(const ShownEntry& shown) {
    return someAreRenamed(usedKinds()) &&
           std::any_of(shown.attributes.begin(), shown.attributes.end(), isReference);
}

vexCode References::show(ShownEntry* shown) {
    for (ShownValues& one : shown->attributes) {
        if (!isReference(one)) continue;
        for (std::string& value : one.values) {
            if (!mayBeRenamed(value)) continue;
            if (const vexCode code = find(value, &value); code != VEX_OK) return code;
        }
    }
    return VEX_OK;
}

vexCode References::find(const std::string& dn, std::string* name) {
    if (const auto known = m_names.find(dn); known != m_names.end()) {
        *name = known->second;
        return VEX_OK;
    }
    std::string shown = dn;
    ObjectSearch search;
    vexCode code = search.open({"(objectClass=*)", dn, LDAP_SCOPE_BASE});
    FoundObject found;
    while (code == VEX_OK && (code = search.next(&found)) == VEX_OK) {
        const AgentObject object(search.session(), found.object.get());
        const Kind* kind = kindOf(usedKinds(), object);
        if (kind != nullptr && isShown(*kind, object)) shown = shownDn(*kind, object);
    }
    if (code != VEX_END_OF_RESULTS) return code;
    search.finish();
    *name = m_names.emplace(dn, std::move(shown)).first->second;
    return VEX_OK;
}

}  // namespace standard
