#include "agent/ad/names.h"

#include <algorithm>
#include <optional>

#include "agent/ad/filters.h"
#include "vorn/dn.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

// The value of a DN's leading "cn="; nothing when it begins otherwise or is no DN.
std::optional<std::string> commonName(const std::string& dn) {
    LDAPDN parsed = nullptr;
    if (dn.find('\0') != std::string::npos ||
        ldap_str2dn(dn.c_str(), &parsed, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS || parsed == nullptr)
        return std::nullopt;
    std::optional<std::string> value;
    if (parsed[0] != nullptr && parsed[0][0] != nullptr && parsed[0][1] == nullptr) {
        const LDAPAVA* part = parsed[0][0];
        if (vorn::equalsIgnoreCase({part->la_attr.bv_val, part->la_attr.bv_len}, "cn"))
            value.emplace(part->la_value.bv_val, part->la_value.bv_len);
    }
    ldap_dnfree(parsed);
    return value;
}

}  // namespace

Entry* NamedEntries::only() {
    if (count() != 1) return nullptr;
    return real.empty() ? &rewritten.front() : &real.front();
}

LdapStatus NameFinder::find(const char* attribute, const std::string& value, std::vector<Entry>& found) {
    return m_domain.search({vorn::DN::dnFromDomain(m_domain.name()), LDAP_SCOPE_SUBTREE,
                            anyOf(attribute, {value}), m_attributes},
                           m_deadline, found);
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
LdapStatus NameFinder::collect(const std::string& dn, const std::vector<LdapSearch>& searches,
                               NamedEntries& found) {
    const auto isSame = [](const Entry& a) { return [&a](const Entry& b) { return a.dn == b.dn; }; };
    return m_domain.run(m_deadline, [&](Domain::Lease& lease) {
        found = {};
        return lease->searchAll(searches, m_deadline, [&](Entry&& entry) {
            const bool known = std::any_of(found.real.begin(), found.real.end(), isSame(entry)) ||
                               std::any_of(found.rewritten.begin(), found.rewritten.end(), isSame(entry));
            if (known) return;
            const bool real = vorn::equalsIgnoreCase(entry.dn, dn);
            (real ? found.real : found.rewritten).push_back(std::move(entry));
        });
    });
}

LdapStatus NameFinder::byDn(const std::string& dn, Rewritten rewritten, NamedEntries& found) {
    if (dn.find('\0') != std::string::npos || !vorn::DN::isDN(dn)) return {};
    const LdapSearch itself = {dn, LDAP_SCOPE_BASE, "(objectClass=*)", m_attributes};
    std::vector<LdapSearch> searches = rewrittenFrom(dn);
    if (rewritten == Rewritten::Always) {
        searches.insert(searches.begin(), itself);
        return collect(dn, searches, found);
    }
    LdapStatus status = m_domain.search(itself, m_deadline, found.real);
    if (!status.ok() && !isMissing(status)) return status;
    return found.real.empty() && !searches.empty() ? collect(dn, searches, found) : LdapStatus();
}

// Both are looked for whatever the first one finds: what is asked is the same for
// everybody.
LdapStatus NameFinder::byPrincipal(const std::string& name, NamedEntries& found) {
    const std::size_t at = name.rfind('@');
    const bool ours =
        at != 0 && vorn::equalsIgnoreCase(std::string_view(name).substr(at + 1), m_domain.name());
    LdapStatus status = find("userPrincipalName", name, found.real);
    if (!status.ok() || !ours) return status;
    std::vector<Entry> accounts;
    status = find("sAMAccountName", name.substr(0, at), accounts);
    if (found.real.empty()) found.real = std::move(accounts);
    return status;
}

LdapStatus NameFinder::byAccount(const std::string& name, std::size_t backslash, NamedEntries& found) {
    const std::string_view domain = std::string_view(name).substr(0, backslash);
    const std::string& own = m_domain.name();
    bool ours = vorn::equalsIgnoreCase(domain, own) ||
                vorn::equalsIgnoreCase(domain, std::string_view(own).substr(0, own.find('.')));
    if (!ours) {
        std::shared_ptr<const DomainInfo> info;
        if (LdapStatus status = m_domain.info(m_deadline, info); !status.ok()) return status;
        ours = vorn::equalsIgnoreCase(domain, info->netbios);
    }
    const std::string account = name.substr(backslash + 1);
    return ours && !account.empty() ? find("sAMAccountName", account, found.real) : LdapStatus();
}

LdapStatus NameFinder::byLoginName(const std::string& name, NamedEntries& found) {
    if (name.find('\0') != std::string::npos) return {};
    if (vorn::DN::isDN(name)) return byDn(name, Rewritten::Always, found);
    const std::size_t backslash = name.find('\\');
    if (backslash != std::string::npos) return byAccount(name, backslash, found);
    if (name.find('@') != std::string::npos) return byPrincipal(name, found);
    return {};
}

}  // namespace vexagent
