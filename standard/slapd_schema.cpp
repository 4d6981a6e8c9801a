// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <string>

#include "standard/schema.h"
#include "vorn/strings.h"

#include "backend/base/slapd.h"

namespace standard {
namespace {

std::string textOf(const berval& text) {
    return {text.bv_val, text.bv_len};
}

berval bervalOf(std::string_view text) {
    return {text.size(), const_cast<char*>(text.data())};
}

// The syntaxes and rules are told by their names of RFC 4517: slapd keeps no other sign.
Match matchOf(const AttributeType& type) {
    if (type.sat_equality == nullptr || type.sat_equality->smr_names == nullptr) return Match::Other;
    const std::string_view rule = type.sat_equality->smr_names[0];
    if (rule.starts_with("caseIgnoreIA5") || rule == "caseIgnoreMatch" || rule == "telephoneNumberMatch")
        return rule == "telephoneNumberMatch" ? Match::Other : Match::Folded;
    if (rule.starts_with("caseExact")) return Match::Exact;
    if (rule == "integerMatch") return Match::Number;
    if (rule == "distinguishedNameMatch") return Match::Dn;
    return Match::Other;
}

void addUnique(std::vector<std::string>* names, const std::string& name) {
    if (std::find(names->begin(), names->end(), name) == names->end()) names->push_back(name);
}

void addNames(std::vector<std::string>* names, AttributeType* const* types) {
    for (; types != nullptr && *types != nullptr; ++types) addUnique(names, textOf((*types)->sat_cname));
}

void addClass(const ObjectClass& one, ClassFacts* facts) {
    for (ObjectClass* const* superior = one.soc_sups; superior != nullptr && *superior != nullptr;
         ++superior) {
        addClass(**superior, facts);
        addUnique(&facts->superiors, textOf((*superior)->soc_cname));
    }
    addNames(&facts->must, one.soc_required);
    addNames(&facts->may, one.soc_allowed);
}

class SlapdSchema final : public Schema {
  public:
    std::optional<AttributeFacts> findAttribute(std::string_view name) const override {
        AttributeDescription* description = nullptr;
        const char* reason = nullptr;
        berval text = bervalOf(name);
        if (slap_bv2ad(&text, &description, &reason) != LDAP_SUCCESS) return std::nullopt;
        const AttributeType& type = *description->ad_type;
        AttributeFacts facts{textOf(type.sat_cname), matchOf(type), is_at_operational(&type) != 0, {}};
        for (const AttributeType* at = &type; at != nullptr; at = at->sat_sup)
            facts.types.push_back(textOf(at->sat_cname));
        return facts;
    }

    std::optional<ClassFacts> findClass(std::string_view name) const override {
        berval text = bervalOf(name);
        const ObjectClass* one = oc_bvfind(&text);
        if (one == nullptr) return std::nullopt;
        ClassFacts facts{textOf(one->soc_cname), one->soc_kind == LDAP_SCHEMA_STRUCTURAL, {}, {}, {}};
        addClass(*one, &facts);
        return facts;
    }
};

}  // namespace

const Schema& slapdSchema() {
    static const SlapdSchema theOne;
    return theOne;
}

}  // namespace standard
