// SPDX-License-Identifier: Apache-2.0
#include "standard/references.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include "standard/entries.h"
#include "standard/names.h"
#include "standard/slapd_entry.h"
#include "vorn/escape.h"
#include "vorn/strings.h"

#include "backend/base/slapd.h"

namespace standard {
namespace {

constexpr std::size_t kDnsInAFilter = 64;

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

// A whole filter for objects of the kinds that are renamed.
std::string renamedKinds() {
    std::string filter = "(|";
    for (const Kind& kind : usedKinds())
        if (!kind.naming.empty()) filter += kind.condition;
    return filter + ")";
}

std::string named(const std::vector<std::string>& dns, std::size_t from, std::size_t to) {
    std::string filter = "(&" + renamedKinds() + "(|";
    for (std::size_t i = from; i < to; ++i) {
        filter.append("(").append(AD_OBJECT_DN_TEXT).append("=");
        vorn::appendFilterValue(&filter, dns[i]);
        filter.append(")");
    }
    return filter + "))";
}

}  // namespace

References::References(const Operation* op, const Filter* filter)
    : m_op(op),
      m_wanted(filter == nullptr || op->o_tag != LDAP_REQ_SEARCH || clientAsksForDns(op) ||
               assertsDns(filter)) {}

bool References::areIn(const ShownEntry& shown) {
    return someAreRenamed(usedKinds()) &&
           std::any_of(shown.attributes.begin(), shown.attributes.end(), isReference);
}

vexCode References::show(ShownEntry* shown) {
    std::vector<std::string> unknown;
    for (const ShownValues& one : shown->attributes) {
        if (!isReference(one)) continue;
        std::copy_if(one.values.begin(), one.values.end(), std::back_inserter(unknown),
                     [this](const std::string& dn) { return mayBeRenamed(dn) && m_names.count(dn) == 0; });
    }
    if (const vexCode code = learn(unknown); code != VEX_OK) return code;
    for (ShownValues& one : shown->attributes) {
        if (!isReference(one)) continue;
        for (std::string& value : one.values)
            if (const auto name = m_names.find(value); name != m_names.end()) value = name->second;
    }
    return VEX_OK;
}

// What is not found is no object that has another name.
vexCode References::learn(const std::vector<std::string>& dns) {
    for (std::size_t from = 0; from < dns.size(); from += kDnsInAFilter) {
        const std::size_t to = std::min(dns.size(), from + kDnsInAFilter);
        std::map<std::string, std::string> shown;
        if (const vexCode code = ask(named(dns, from, to), &shown); code != VEX_OK) return code;
        for (std::size_t i = from; i < to; ++i) {
            const auto found = shown.find(normalDn(dns[i]));
            m_names[dns[i]] = found == shown.end() ? dns[i] : found->second;
        }
    }
    return VEX_OK;
}

// The shown names of what a filter finds, by the normal forms of the real ones.
vexCode References::ask(const std::string& filter, std::map<std::string, std::string>* shown) {
    const berval& suffix = m_op->o_bd->be_suffix[0];
    ObjectSearch search;
    vexCode code = search.open({filter, {suffix.bv_val, suffix.bv_len}, LDAP_SCOPE_SUBTREE});
    FoundObject found;
    while (code == VEX_OK && (code = search.next(&found)) == VEX_OK) {
        const AgentObject object(search.session(), found.object.get());
        const Kind* kind = kindOf(usedKinds(), object);
        if (kind != nullptr && isShown(*kind, object))
            (*shown)[normalDn(object.first(AD_OBJECT_DN_TEXT))] = shownDn(*kind, object);
    }
    if (code != VEX_END_OF_RESULTS) return code;
    search.finish();
    return VEX_OK;
}

}  // namespace standard
