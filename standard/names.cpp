// SPDX-License-Identifier: Apache-2.0
#include "standard/names.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "vorn/dn.h"
#include "vorn/escape.h"
#include "vorn/strings.h"

#include "backend/base/slapd.h"

namespace standard {
namespace {

void addEquality(const std::string& attribute, const std::string& value, std::string* filter) {
    filter->append("(").append(attribute).append("=");
    vorn::appendFilterValue(filter, value);
    filter->append(")");
}

// Objects that are shown with this value as their "cn=", or really have it. Directories have
// ideas of their own which letters are the same outside of ASCII: then any may be.
std::string namedSo(const std::string& value, const Kinds& kinds) {
    if (!std::all_of(value.begin(), value.end(), [](char c) { return static_cast<signed char>(c) >= 0; }))
        return "";
    std::vector<std::string> attributes = {"cn"};
    for (const Kind& kind : kinds) {
        if (!kind.naming.empty() &&
            std::find(attributes.begin(), attributes.end(), kind.naming) == attributes.end())
            attributes.push_back(kind.naming);
    }
    std::string filter = "(|";
    for (const std::string& attribute : attributes) addEquality(attribute, value, &filter);
    return filter + ")";
}

}  // namespace

bool someAreRenamed(const Kinds& kinds) {
    return std::any_of(kinds.begin(), kinds.end(), [](const Kind& kind) { return !kind.naming.empty(); });
}

// The directory does not find a renamed object by its shown name. So the entry of a name is
// looked for among the children of its parent, which is a container and never renamed.
AgentQuestion placedQuestion(const std::string& filter, const std::string& base, int scope,
                             const Kinds& kinds) {
    const auto rdn = vorn::DN::firstRdn(base);
    const bool mayBeRenamed = scope == LDAP_SCOPE_BASE && someAreRenamed(kinds) && rdn.size() == 1 &&
                              vorn::equalsIgnoreCase(rdn[0].first, "cn");
    const std::string parent = mayBeRenamed ? vorn::DN::parent(base) : "";
    if (parent.empty()) return {filter, base, scope};
    const std::string named = namedSo(rdn[0].second, kinds);
    return {named.empty() ? filter : "(&" + filter + named + ")", parent, LDAP_SCOPE_ONELEVEL};
}

}  // namespace standard
