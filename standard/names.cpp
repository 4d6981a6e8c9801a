// SPDX-License-Identifier: Apache-2.0
#include "standard/names.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "standard/agent_filter.h"
#include "standard/shown_entry.h"
#include "standard/slapd_entry.h"
#include "vorn/dn.h"
#include "vorn/strings.h"

#include "backend/base/slapd.h"

namespace standard {
namespace {

constexpr int kMostLevelsUp = 64;

// Objects that are shown with this value as their "cn=", or really have it.
std::string namedSo(const std::string& value, const Kinds& kinds) {
    std::vector<AgentFilter> any = {AgentFilter::equality("cn", value)};
    for (const Kind& kind : kinds)
        if (!kind.naming.empty()) any.push_back(AgentFilter::equality(kind.naming, value));
    return AgentFilter::combine(AgentFilter::Operator::Or, any).text();
}

bool hasOneSpelling(const std::string& dn) {
    return std::all_of(dn.begin(), dn.end(), [](char c) { return c > ' ' && c < 0x7f && c != '\\'; });
}

// At least the objects whose shown name begins like the DN; empty where several values are
// joined.
std::string filterOfName(const std::string& dn, const Kinds& kinds) {
    const auto rdn = vorn::DN::firstRdn(dn);
    if (rdn.size() != 1) return "";
    TextPattern value(TextPattern::Case::Folded);
    value.append(rdn[0].second);
    std::vector<AgentFilter> names = {value.of(rdn[0].first)};
    for (const Kind& kind : kinds) {
        if (!kind.naming.empty() && vorn::equalsIgnoreCase(rdn[0].first, "cn"))
            names.push_back(value.of(kind.naming));
    }
    return AgentFilter::combine(AgentFilter::Operator::Or, names).text();
}

// The real DN of the object directly below a real one that is shown so; or empty.
std::string childOf(const std::string& place, const std::string& shown, const Kinds& kinds, vexCode* code) {
    const std::string filter = filterOfName(shown, kinds);
    if (filter.empty()) return "";
    ObjectSearch search;
    *code = search.open({filter, place, LDAP_SCOPE_ONELEVEL});
    if (*code != VEX_OK) return "";
    const std::string wanted = normalDn(shown);
    std::string real;
    FoundObject next;
    while ((*code = search.next(&next)) == VEX_OK) {
        const AgentObject object(search.session(), next.object.get());
        const Kind* kind = kindOf(kinds, object);
        if (kind != nullptr && normalDn(shownDn(*kind, object)) == wanted)
            real = object.first(AD_OBJECT_DN_TEXT);
    }
    if (*code != VEX_END_OF_RESULTS) return "";
    search.finish();
    *code = VEX_OK;
    return real;
}

// The real DN of a container: one level after the other, from the first one that can only be
// written in one way.
std::string realPlace(const std::string& shown, const Kinds& kinds, int levels, vexCode* code) {
    const std::string parent = vorn::DN::parent(shown);
    if (hasOneSpelling(shown) || parent.empty()) return shown;
    if (levels == 0) return "";
    const std::string place = realPlace(parent, kinds, levels - 1, code);
    return place.empty() ? "" : childOf(place, shown, kinds, code);
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
    return {"(&" + filter + namedSo(rdn[0].second, kinds) + ")", parent, LDAP_SCOPE_ONELEVEL};
}

std::string realDn(const std::string& shown, const Kinds& kinds, vexCode* code) {
    *code = VEX_OK;
    const bool mayBeRenamed = someAreRenamed(kinds) && vorn::startsWithIgnoreCase(shown, "cn=");
    if (hasOneSpelling(shown) && !mayBeRenamed) return "";
    const std::string parent = vorn::DN::parent(shown);
    const std::string place = hasOneSpelling(parent) ? parent : realPlace(parent, kinds, kMostLevelsUp, code);
    return place.empty() ? "" : childOf(place, shown, kinds, code);
}

}  // namespace standard
