// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/names.h"

#include <memory>
#include <optional>
#include <set>

#include "agent/ad/filters.h"
#include "vorn/dn.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

// The value of a DN's leading "cn="; nothing when it begins otherwise.
std::optional<std::string> commonName(const std::string& dn) {
    LDAPRDN first = nullptr;
    char* rest = nullptr;
    if (ldap_str2rdn(dn.c_str(), &first, &rest, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS) return std::nullopt;
    const std::unique_ptr<LDAPAVA*, decltype(&ldap_rdnfree)> owner(first, ldap_rdnfree);
    const LDAPAVA& part = *first[0];
    if (first[1] != nullptr || !vorn::equalsIgnoreCase({part.la_attr.bv_val, part.la_attr.bv_len}, "cn"))
        return std::nullopt;
    return std::string(part.la_value.bv_val, part.la_value.bv_len);
}

}  // namespace

Entry* NamedEntries::only() {
    if (count() != 1) return nullptr;
    return real.empty() ? &rewritten.front() : &real.front();
}

NameFinder::Found NameFinder::find(const char* attribute, const std::string& value) const {
    auto entries = readOne(
        m_network, m_domain,
        {vorn::DN::dnFromDomain(m_domain.name), LDAP_SCOPE_SUBTREE, anyOf(attribute, {value}), m_attributes},
        m_deadline);
    if (!entries) return vorn::unexpected(entries.error());
    return NamedEntries{std::move(*entries), {}};
}

std::vector<LdapSearch> NameFinder::rewrittenFrom(const std::string& dn) const {
    const std::optional<std::string> value = commonName(dn);
    if (!value || value->empty()) return {};
    std::vector<LdapSearch> searches;
    for (const std::string& attribute : m_options.loginAttributes)
        searches.push_back(
            {vorn::DN::parent(dn), LDAP_SCOPE_ONELEVEL, anyOf(attribute.c_str(), {*value}), m_attributes});
    return searches;
}

// Runs the searches in one go; an object that several find counts once.
NameFinder::Found NameFinder::collect(const std::string& dn, const std::vector<LdapSearch>& searches) const {
    auto entries = readAll(m_network, m_domain, searches, m_deadline);
    if (!entries) return vorn::unexpected(entries.error());
    NamedEntries found;
    std::set<std::string> seen;
    for (Entry& entry : *entries) {
        if (!seen.insert(entry.dn).second) continue;
        const bool real = vorn::equalsIgnoreCase(entry.dn, dn);
        (real ? found.real : found.rewritten).push_back(std::move(entry));
    }
    return found;
}

NameFinder::Found NameFinder::byDn(const std::string& dn, Rewritten rewritten) const {
    if (!vorn::DN::isDN(dn)) return NamedEntries();
    const LdapSearch itself = {dn, LDAP_SCOPE_BASE, "(objectClass=*)", m_attributes};
    std::vector<LdapSearch> searches = rewrittenFrom(dn);
    if (rewritten == Rewritten::Always) {
        searches.insert(searches.begin(), itself);
        return collect(dn, searches);
    }
    auto entries = readOne(m_network, m_domain, itself, m_deadline);
    if (!entries && !isMissing(entries.error())) return vorn::unexpected(entries.error());
    if (entries && !entries->empty()) return NamedEntries{std::move(*entries), {}};
    return searches.empty() ? Found(NamedEntries()) : collect(dn, searches);
}

// Both are looked for whatever the first one finds: what is asked is the same for
// everybody.
NameFinder::Found NameFinder::byPrincipal(const std::string& name) const {
    const std::size_t at = name.rfind('@');
    const bool ours = at != 0 && vorn::equalsIgnoreCase(std::string_view(name).substr(at + 1), m_domain.name);
    Found principals = find("userPrincipalName", name);
    if (!principals || !ours) return principals;
    Found accounts = find("sAMAccountName", name.substr(0, at));
    return accounts && !principals->real.empty() ? principals : accounts;
}

// Whether it is the domain's DNS name, the first label of it, or its short name. Only the
// last costs a question.
Expected<bool, LdapFailure> NameFinder::isOwnName(std::string_view domain) const {
    const std::string_view own = m_domain.name;
    if (vorn::equalsIgnoreCase(domain, own) || vorn::equalsIgnoreCase(domain, own.substr(0, own.find('.'))))
        return true;
    const auto info = m_network.describe(m_domain, m_deadline);
    if (!info) return vorn::unexpected(info.error());
    return vorn::equalsIgnoreCase(domain, (*info)->netbios);
}

NameFinder::Found NameFinder::byAccount(const std::string& name, std::size_t backslash) const {
    const auto ours = isOwnName(std::string_view(name).substr(0, backslash));
    if (!ours) return vorn::unexpected(ours.error());
    const std::string account = name.substr(backslash + 1);
    return *ours && !account.empty() ? find("sAMAccountName", account) : NamedEntries();
}

NameFinder::Found NameFinder::byLoginName(const std::string& name) const {
    if (name.find('\0') != std::string::npos) return NamedEntries();
    if (vorn::DN::isDN(name)) return byDn(name, Rewritten::Always);
    const std::size_t backslash = name.find('\\');
    if (backslash != std::string::npos) return byAccount(name, backslash);
    if (name.find('@') != std::string::npos) return byPrincipal(name);
    return NamedEntries();
}

}  // namespace vexagent
