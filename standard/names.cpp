// SPDX-License-Identifier: Apache-2.0
#include "standard/names.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "standard/question.h"
#include "standard/shown_entry.h"
#include "standard/slapd_entry.h"
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
    if (!isAscii(value)) return "";
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

bool isAscii(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<signed char>(c) >= 0; });
}

// One level after the other, from the first one that the directory cannot mistake.
std::string realDn(const std::string& shown, const Kinds& kinds, vexCode* code) {
    *code = VEX_OK;
    const std::string parent = vorn::DN::parent(shown);
    if (parent.empty() || isAscii(shown)) return shown;
    const std::string place = realDn(parent, kinds, code);
    if (*code != VEX_OK || place.empty()) return "";
    ObjectSearch search;
    *code = search.open({*questionOf(nullptr, kinds, nullptr), place, LDAP_SCOPE_ONELEVEL});
    if (*code != VEX_OK) return "";
    const std::string wanted = normalDn(shown);
    std::string found;
    FoundObject next;
    while ((*code = search.next(&next)) == VEX_OK) {
        const AgentObject object(search.session(), next.object.get());
        const Kind* kind = kindOf(kinds, object);
        if (kind != nullptr && normalDn(shownDn(*kind, object)) == wanted)
            found = object.first(AD_OBJECT_DN_TEXT);
    }
    if (*code != VEX_END_OF_RESULTS) return "";
    search.finish();
    *code = VEX_OK;
    return found;
}

}  // namespace standard
