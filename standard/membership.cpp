// SPDX-License-Identifier: Apache-2.0
#include "standard/membership.h"

#include <algorithm>
#include <functional>
#include <map>
#include <utility>

#include "standard/agent_filter.h"
#include "standard/entries.h"
#include "standard/names.h"
#include "standard/slapd_entry.h"
#include "vorn/strings.h"

#include "backend/base/slapd.h"

namespace standard {
namespace {

constexpr char kAccountName[] = "sAMAccountName";
constexpr std::size_t kNamesInAFilter = 64;
constexpr std::size_t kMostNamesInAFilter = 512;

using Names = std::vector<std::string>;

std::string equality(const char* attribute, std::string_view value) {
    return AgentFilter::equality(attribute, value).text();
}

// Of one value at least.
std::string anyOf(const char* attribute, const Names& values, std::size_t from, std::size_t to) {
    std::vector<AgentFilter> any;
    for (std::size_t i = from; i < to; ++i) any.push_back(AgentFilter::equality(attribute, values[i]));
    return AgentFilter::combine(AgentFilter::Operator::Or, any).text();
}

const Kind* kindOfSort(Sort sort) {
    for (const Kind& kind : usedKinds())
        if (kind.sort == sort) return &kind;
    return nullptr;
}

// All objects of the kind that the filter finds, and that are shown.
vexCode forEach(const std::string& suffix, const Kind& kind, const std::string& filter,
                const std::function<void(const AgentObject&)>& take) {
    ObjectSearch search;
    vexCode code = search.open({"(&" + kind.condition + filter + ")", suffix, LDAP_SCOPE_SUBTREE});
    if (code != VEX_OK) return code;
    FoundObject found;
    while ((code = search.next(&found)) == VEX_OK) {
        const AgentObject object(search.session(), found.object.get());
        if (kindOf(usedKinds(), object) == &kind && isShown(kind, object)) take(object);
    }
    if (code != VEX_END_OF_RESULTS) return code;
    search.finish();
    return VEX_OK;
}

// The object that is shown so among those of a question, if it is of this kind.
vexCode findShown(const Kind& kind, const AgentQuestion& question, const std::string& ndn,
                  std::optional<AgentObject>* result) {
    ObjectSearch search;
    if (const vexCode code = search.open(question); code != VEX_OK) return code;
    FoundObject found;
    vexCode code = VEX_OK;
    while ((code = search.next(&found)) == VEX_OK) {
        AgentObject object(search.session(), found.object.get());
        if (kindOf(usedKinds(), object) != &kind) continue;
        if (normalDn(shownDn(kind, object)) == ndn) *result = std::move(object);
    }
    if (code != VEX_END_OF_RESULTS) return code;
    search.finish();
    return VEX_OK;
}

// The object that is shown so, if it is of this kind; *known: whether that could be told.
std::optional<AgentObject> shownAs(const Kind& kind, std::string_view ndn, bool* known) {
    const std::string dn(ndn);
    std::optional<AgentObject> result;
    vexCode code =
        findShown(kind, placedQuestion(kind.condition, dn, LDAP_SCOPE_BASE, usedKinds()), dn, &result);
    std::string real;
    if (code == VEX_OK && !result) real = realDn(dn, usedKinds(), &code);
    if (code == VEX_OK && !real.empty())
        code = findShown(kind, {kind.condition, real, LDAP_SCOPE_BASE}, dn, &result);
    *known = code == VEX_OK;
    return result;
}

std::optional<std::string> groupsWithMember(std::string_view ndn) {
    const Kind* people = kindOfSort(Sort::Person);
    if (people == nullptr) return "";
    bool known = false;
    const auto person = shownAs(*people, ndn, &known);
    if (!known) return std::nullopt;
    return person ? equality("memberUid", person->first(kAccountName)) : "";
}

std::optional<std::string> peopleOfGroup(std::string_view ndn) {
    const Kind* groups = kindOfSort(Sort::Group);
    if (groups == nullptr) return "";
    bool known = false;
    const auto group = shownAs(*groups, ndn, &known);
    if (!known) return std::nullopt;
    const Names names = group ? memberNames(*groups, *group) : Names();
    if (names.size() > kMostNamesInAFilter) return std::nullopt;
    return names.empty() ? "" : anyOf(kAccountName, names, 0, names.size());
}

}  // namespace

vexCode memberDns(const std::string& suffix, const AgentObject& group, std::vector<std::string>* dns) {
    const Kind* people = kindOfSort(Sort::Person);
    if (people == nullptr) return VEX_OK;
    const Kind* groups = kindOfSort(Sort::Group);
    const Names names = groups == nullptr ? Names() : memberNames(*groups, group);
    std::map<std::string, std::string, vorn::StringCaseLessThan> found;
    for (std::size_t from = 0; from < names.size(); from += kNamesInAFilter) {
        const std::size_t to = std::min(names.size(), from + kNamesInAFilter);
        const vexCode code = forEach(
            suffix, *people, anyOf(kAccountName, names, from, to),
            [&](const AgentObject& person) { found[person.first(kAccountName)] = shownDn(*people, person); });
        if (code != VEX_OK) return code;
    }
    for (const std::string& name : names) {
        if (const auto dn = found.find(name); dn != found.end()) dns->push_back(dn->second);
    }
    return VEX_OK;
}

vexCode groupDns(const std::string& suffix, const AgentObject& person, std::vector<std::string>* dns) {
    const Kind* groups = kindOfSort(Sort::Group);
    const std::string& name = person.first(kAccountName);
    if (groups == nullptr || name.empty()) return VEX_OK;
    return forEach(suffix, *groups, equality("memberUid", name), [&](const AgentObject& group) {
        const Names members = memberNames(*groups, group);
        // The agent compares as directories do: the name itself decides.
        if (std::find(members.begin(), members.end(), name) != members.end())
            dns->push_back(shownDn(*groups, group));
    });
}

Resolver membershipResolver() {
    return [](const Kind& kind, const ShownAttribute& attribute,
              std::string_view value) -> std::optional<std::string> {
        if (attribute.name == "memberUid") return equality("memberUid", value);
        if (attribute.name == "member" && kind.sort == Sort::Group) return groupsWithMember(value);
        if (attribute.name == "memberOf" && kind.sort == Sort::Person) return peopleOfGroup(value);
        return std::nullopt;
    };
}

}  // namespace standard
