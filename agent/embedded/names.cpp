// SPDX-License-Identifier: Apache-2.0
#include "agent/embedded/names.h"

#include <algorithm>

#include "vorn/strings.h"

namespace vexagent {
namespace {

using Messages = std::vector<ldb_message*>;

// Adds an object once.
void addOnce(Messages& list, ldb_message* message) {
    const bool known = std::any_of(list.begin(), list.end(), [message](const ldb_message* other) {
        return ldb_dn_compare(other->dn, message->dn) == 0;
    });
    if (!known) list.push_back(message);
}

Messages findAll(Handle& handle, void* pool, const char* attribute, std::string_view value) {
    Messages found;
    handle.find(attribute, value, nullptr, [&](ldb_message* message) {
        found.push_back(talloc_steal(pool, message));
        return true;
    });
    return found;
}

// A name that several objects bear means none of them.
Named named(const Messages& found) {
    Named result;
    if (found.size() == 1)
        result.real = found.front();
    else
        result.rewritten = found;
    return result;
}

bool isDomainName(std::string_view text, const std::string& domain) {
    return vorn::equalsIgnoreCase(text, domain) ||
           vorn::equalsIgnoreCase(text, std::string_view(domain).substr(0, domain.find('.')));
}

Named findByPrincipal(Handle& handle, void* pool, const std::string& name, const NameRules& rules) {
    const Messages found = findAll(handle, pool, "userPrincipalName", name);
    const std::size_t at = name.rfind('@');
    if (!found.empty() || !vorn::equalsIgnoreCase(std::string_view(name).substr(at + 1), rules.domain))
        return named(found);
    return named(findAll(handle, pool, "sAMAccountName", name.substr(0, at)));
}

ldb_dn* newDn(Handle& handle, void* pool, const std::string& text) {
    if (text.find('\0') != std::string::npos) return nullptr;
    ldb_dn* dn = ldb_dn_new(pool, handle.ldb(), text.c_str());
    if (dn == nullptr || !ldb_dn_validate(dn) || ldb_dn_is_null(dn) || ldb_dn_is_special(dn)) return nullptr;
    return dn;
}

}  // namespace

ldb_message* Named::only() const {
    if (count() != 1) return nullptr;
    return real != nullptr ? real : rewritten.front();
}

Named findByDn(Handle& handle, void* pool, const std::string& dn, const NameRules& rules) {
    Named result;
    ldb_dn* name = newDn(handle, pool, dn);
    if (name == nullptr) return result;
    result.real = handle.read(pool, name);
    if (!vorn::equalsIgnoreCase(ldb_dn_get_rdn_name(name), "cn")) return result;

    ldb_dn* parent = ldb_dn_get_parent(pool, name);
    const std::string value(bytesOf(*ldb_dn_get_rdn_val(name)));
    for (const std::string& attribute : rules.loginAttributes) {
        for (ldb_message* message : findAll(handle, pool, attribute.c_str(), value)) {
            ldb_dn* above = ldb_dn_get_parent(pool, message->dn);
            if (above == nullptr || parent == nullptr || ldb_dn_compare(above, parent) != 0) continue;
            if (result.real != nullptr && ldb_dn_compare(result.real->dn, message->dn) == 0) continue;
            addOnce(result.rewritten, message);
        }
    }
    return result;
}

Named findByLoginName(Handle& handle, void* pool, const std::string& name, const NameRules& rules) {
    if (newDn(handle, pool, name) != nullptr) return findByDn(handle, pool, name, rules);
    const std::size_t backslash = name.find('\\');
    if (backslash != std::string::npos) {
        if (!isDomainName(std::string_view(name).substr(0, backslash), rules.domain)) return {};
        return named(findAll(handle, pool, "sAMAccountName", name.substr(backslash + 1)));
    }
    if (name.find('@') != std::string::npos) return findByPrincipal(handle, pool, name, rules);
    return {};
}

}  // namespace vexagent
