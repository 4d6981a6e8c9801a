// SPDX-License-Identifier: Apache-2.0
#include "standard/slapd_entry.h"

#include <set>
#include <utility>
#include <vector>

#include "backend/base/slapd.h"

namespace standard {
namespace {

berval bervalOf(const std::string& text) {
    return {text.size(), const_cast<char*>(text.data())};
}

// Values that slapd has made, with their normal forms.
class MadeValues {
  public:
    explicit MadeValues(AttributeDescription* description) : m_description(description) {}
    ~MadeValues() {
        for (berval& value : m_pretty) ch_free(value.bv_val);
        for (berval& value : m_normal) ch_free(value.bv_val);
    }
    MadeValues(const MadeValues&) = delete;
    MadeValues& operator=(const MadeValues&) = delete;

    void add(const std::string& text);
    void mergeInto(Entry* entry);

  private:
    AttributeType* type() const { return m_description->ad_type; }
    bool makePretty(const std::string& text, berval* pretty) const;
    bool makeNormal(berval* pretty, berval* normal) const;

    AttributeDescription* const m_description;
    std::vector<berval> m_pretty;
    std::vector<berval> m_normal;  // none: the values are their own normal forms
    std::set<std::string, std::less<>> m_known;
};

bool MadeValues::makePretty(const std::string& text, berval* pretty) const {
    berval value = bervalOf(text);
    if (type()->sat_syntax->ssyn_pretty != nullptr)
        return ordered_value_pretty(m_description, &value, pretty, nullptr) == LDAP_SUCCESS;
    if (type()->sat_syntax->ssyn_validate == nullptr ||
        ordered_value_validate(m_description, &value, LDAP_REQ_ADD) != LDAP_SUCCESS)
        return false;
    return ber_dupbv(pretty, &value) != nullptr;
}

bool MadeValues::makeNormal(berval* pretty, berval* normal) const {
    const MatchingRule* rule = type()->sat_equality;
    if (rule == nullptr || rule->smr_normalize == nullptr) return ber_dupbv(normal, pretty) != nullptr;
    return ordered_value_normalize(SLAP_MR_VALUE_OF_ATTRIBUTE_SYNTAX, m_description,
                                   const_cast<MatchingRule*>(rule), pretty, normal, nullptr) == LDAP_SUCCESS;
}

void MadeValues::add(const std::string& text) {
    if (is_at_single_value(type()) && !m_pretty.empty()) return;
    berval pretty{};
    if (!makePretty(text, &pretty)) return;
    berval normal{};
    if (makeNormal(&pretty, &normal)) {
        if (m_known.emplace(normal.bv_val, normal.bv_len).second) {
            m_pretty.push_back(std::exchange(pretty, {}));
            m_normal.push_back(std::exchange(normal, {}));
        }
        ch_free(normal.bv_val);
    }
    ch_free(pretty.bv_val);
}

void MadeValues::mergeInto(Entry* entry) {
    if (m_pretty.empty()) return;
    m_pretty.push_back({});  // the arrays end with a null
    m_normal.push_back({});
    const bool apart = type()->sat_equality != nullptr && type()->sat_equality->smr_normalize != nullptr;
    attr_merge(entry, m_description, m_pretty.data(), apart ? m_normal.data() : nullptr);
}

// Of a syntax that is transferred in binary only (RFC 4522).
AttributeDescription* describe(const std::string& name) {
    AttributeDescription* description = nullptr;
    const char* reason = nullptr;
    if (slap_str2ad(name.c_str(), &description, &reason) != LDAP_SUCCESS) return nullptr;
    const bool binary = (description->ad_type->sat_syntax->ssyn_flags & SLAP_SYNTAX_BINARY) != 0;
    if (!binary || slap_ad_is_binary(description)) return description;
    AttributeDescription* transferred = nullptr;
    return slap_str2ad((name + ";binary").c_str(), &transferred, &reason) == LDAP_SUCCESS ? transferred
                                                                                          : nullptr;
}

void addAttribute(Entry* entry, const std::string& name, const std::vector<std::string>& texts) {
    AttributeDescription* const description = describe(name);
    if (description == nullptr) return;
    MadeValues values(description);
    for (const std::string& text : texts) values.add(text);
    values.mergeInto(entry);
}

}  // namespace

SharedEntry slapdEntry(const ShownEntry& shown) {
    const SharedEntry entry(entry_alloc(), entry_free);
    berval dn = bervalOf(shown.dn);
    if (dnPrettyNormal(nullptr, &dn, &entry->e_name, &entry->e_nname, nullptr) != LDAP_SUCCESS)
        return nullptr;
    addAttribute(entry.get(), "objectClass", shown.classes);
    addAttribute(entry.get(), "structuralObjectClass", {shown.structural});
    for (const ShownValues& one : shown.attributes)
        addAttribute(entry.get(), one.attribute->name, one.values);
    return entry;
}

std::string normalDn(const std::string& dn) {
    berval text = bervalOf(dn);
    berval normal{};
    if (dnNormalize(0, nullptr, nullptr, &text, &normal, nullptr) != LDAP_SUCCESS) return "";
    std::string result(normal.bv_val, normal.bv_len);
    ch_free(normal.bv_val);
    return result;
}

}  // namespace standard
