// SPDX-License-Identifier: Apache-2.0
#include "agent/server/uid_base.h"

#include <ldap.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "vorn/dn.h"
#include "vorn/escape.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

// The value of a DN's first RDN when that is a uid alone.
std::optional<std::string> uidOf(const std::string& dn) {
    LDAPRDN parsed = nullptr;
    char* rest = nullptr;
    if (dn.find('\0') != std::string::npos) return std::nullopt;
    if (ldap_str2rdn(dn.c_str(), &parsed, &rest, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS) return std::nullopt;
    const std::unique_ptr<LDAPAVA*, decltype(&ldap_rdnfree)> rdn(parsed, ldap_rdnfree);
    if (parsed[0] == nullptr || parsed[1] != nullptr) return std::nullopt;
    const berval& type = parsed[0]->la_attr;
    if (!vorn::equalsIgnoreCase({type.bv_val, type.bv_len}, "uid")) return std::nullopt;
    const berval& value = parsed[0]->la_value;
    return std::string(value.bv_val, value.bv_len);
}

// Takes the item "(NAME=VALUE)" off the text's front; its value, as it stands.
std::optional<std::string_view> takeItem(std::string_view* text) {
    const std::size_t end = text->find(')');
    if (!text->starts_with('(') || end == std::string_view::npos) return std::nullopt;
    const std::string_view item = text->substr(1, end - 1);
    text->remove_prefix(end + 1);
    const std::size_t equals = item.find('=');
    if (equals == std::string_view::npos) return std::nullopt;
    const bool isPlain = item.substr(0, equals).find_first_of("(~<>:!") == std::string_view::npos &&
                         item.find('*') == std::string_view::npos;
    return isPlain ? std::optional(item.substr(equals + 1)) : std::nullopt;
}

// What the second of the filter's two items asserts, the first one being the type.
std::optional<std::string> assertedName(std::string_view filter) {
    constexpr std::string_view kStart = "(&(objectClass=";
    if (!filter.starts_with(kStart)) return std::nullopt;
    filter.remove_prefix(2);
    if (!takeItem(&filter)) return std::nullopt;
    const auto value = takeItem(&filter);
    return value && filter == ")" ? vorn::unescapeFilterValue(*value) : std::nullopt;
}

}  // namespace

void searchByUid(Query* query) {
    if (query->scope != LDAP_SCOPE_BASE || !vorn::startsWithIgnoreCase(query->base, "uid=")) return;
    const auto uid = uidOf(query->base);
    const auto asserted = assertedName(query->filter);
    if (!uid || uid->empty() || !asserted || !vorn::equalsIgnoreCase(*uid, *asserted)) return;
    const std::string parent = vorn::DN::parent(query->base);
    if (parent.empty()) return;
    query->base = parent;
    query->scope = LDAP_SCOPE_SUBTREE;
}

}  // namespace vexagent
