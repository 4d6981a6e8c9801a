// SPDX-License-Identifier: Apache-2.0
#include "vorn/dn.h"

#include <ldap.h>

#include <memory>

#include "vorn/escape.h"
#include "vorn/strings.h"

namespace vorn {
namespace {

using Dn = std::unique_ptr<LDAPRDN, decltype(&ldap_dnfree)>;

// Null for text that is no DN, and for the DN of no RDN.
Dn parse(const std::string& text) {
    LDAPDN parsed = nullptr;
    const bool whole = text.find('\0') == std::string::npos;
    if (!whole || ldap_str2dn(text.c_str(), &parsed, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS) parsed = nullptr;
    return Dn(parsed, ldap_dnfree);
}

std::string_view view(const berval& value) {
    return {value.bv_val, value.bv_len};
}

// The value of an RDN that is one domain component and nothing else, or null.
const berval* domainComponent(LDAPRDN rdn) {
    if (rdn[0] == nullptr || rdn[1] != nullptr) return nullptr;
    const std::string_view type = view(rdn[0]->la_attr);
    const bool isComponent = equalsIgnoreCase(type, "DC") || type == "0.9.2342.19200300.100.1.25";
    return isComponent && rdn[0]->la_value.bv_len != 0 ? &rdn[0]->la_value : nullptr;
}

bool isControl(char c) {
    return static_cast<unsigned char>(c) < ' ' || c == '\x7f';
}

}  // namespace

bool DN::isDN(const std::string& text) {
    return parse(text) != nullptr;
}

std::string DN::parent(const std::string& dn) {
    if (!isDN(dn)) return {};
    // libldap itself says where the first RDN ends: its idea of quoting and
    // escaping is the one that counts.
    LDAPRDN first = nullptr;
    char* separator = nullptr;
    if (ldap_str2rdn(dn.c_str(), &first, &separator, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS) return {};
    ldap_rdnfree(first);
    if (*separator == '\0') return {};
    // Blanks around a separator belong to it.
    const std::string_view rest = separator + 1;
    const std::size_t begin = rest.find_first_not_of(' ');
    return begin == std::string_view::npos ? std::string() : std::string(rest.substr(begin));
}

std::vector<std::pair<std::string, std::string>> DN::firstRdn(const std::string& dn) {
    std::vector<std::pair<std::string, std::string>> pairs;
    const Dn parsed = parse(dn);
    if (parsed == nullptr) return pairs;
    for (LDAPAVA** one = *parsed; *one != nullptr; ++one)
        pairs.emplace_back(view((*one)->la_attr), view((*one)->la_value));
    return pairs;
}

std::string DN::domainFromDN(const std::string& dn) {
    const Dn parsed = parse(dn);
    std::string domain;
    // A component that something else follows is not part of the domain's name:
    // the names of DNS records in the directory are such.
    for (LDAPRDN* rdn = parsed.get(); rdn != nullptr && *rdn != nullptr; ++rdn) {
        const berval* component = domainComponent(*rdn);
        if (component == nullptr) {
            domain.clear();
            continue;
        }
        if (!domain.empty()) domain += '.';
        domain += view(*component);
    }
    return domain;
}

std::string DN::dnFromDomain(const std::string& domain) {
    std::string dn;
    for (std::size_t begin = 0; begin < domain.size();) {
        const std::size_t end = std::min(domain.find('.', begin), domain.size());
        if (end > begin) {
            if (!dn.empty()) dn += ',';
            dn += "DC=" + escapeValue(std::string_view(domain).substr(begin, end - begin));
        }
        begin = end + 1;
    }
    return dn;
}

bool DN::holdsNul(std::string_view dn) {
    if (dn.find('\0') != std::string_view::npos) return true;
    // Behind a backslash stands the character that it escapes, which may be another one.
    for (std::size_t at = dn.find('\\'); at != std::string_view::npos; at = dn.find('\\', at + 2)) {
        if (dn.substr(at + 1).starts_with("00")) return true;
    }
    return false;
}

std::string DN::escapeValue(std::string_view value) {
    static constexpr std::string_view kSpecial = "\"+,;<>\\";
    std::string result;
    result.reserve(value.size());
    for (std::size_t i = 0; i < value.size(); ++i) {
        const char c = value[i];
        const bool first = i == 0;
        const bool last = i + 1 == value.size();
        if (isControl(c)) {
            result += EscapedByte(c);
            continue;
        }
        const bool special = kSpecial.find(c) != std::string_view::npos;
        if (special || (c == '#' && first) || (c == ' ' && (first || last))) result += '\\';
        result += c;
    }
    return result;
}

}  // namespace vorn
