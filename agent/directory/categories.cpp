// SPDX-License-Identifier: Apache-2.0
#include "agent/directory/categories.h"

#include <algorithm>
#include <array>
#include <utility>

#include "vex/vex.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

using Names = std::pair<std::string_view, std::string_view>;

// Class, then the common name of its category.
constexpr std::array<Names, 19> kCategories = {{{"user", "Person"},
                                                {"person", "Person"},
                                                {"organizationalPerson", "Person"},
                                                {"inetOrgPerson", "Person"},
                                                {"contact", "Person"},
                                                {"posixAccount", "Person"},
                                                {"group", "Group"},
                                                {"posixGroup", "Group"},
                                                {"computer", "Computer"},
                                                {"nisNetgroup", "NisNetgroup"},
                                                {"nisMap", "NisMap"},
                                                {"nisObject", "NisObject"},
                                                {"ipService", "IpService"},
                                                {"ipNetwork", "IpNetwork"},
                                                {"ipProtocol", "IpProtocol"},
                                                {"oncRpc", "OncRpc"},
                                                {"organizationalUnit", "Organizational-Unit"},
                                                {"container", "Container"},
                                                {"domainDNS", "Domain-DNS"}}};

// Category, then the spelling that clients see where it differs.
constexpr std::array<Names, 4> kShortNames = {
    {{"Person", "Person"}, {"Group", "Group"}, {"Computer", "Computer"}, {"NisNetgroup", "nisNetgroup"}}};

constexpr std::array<std::string_view, 17> kUnixClasses = {
    "user",       "group",         "computer",      "nisNetgroup",    "nisMap",   "nisObject",
    "ipService",  "ipNetwork",     "ipHost",        "ipProtocol",     "oncRpc",   "posixAccount",
    "posixGroup", "shadowAccount", "ieee802Device", "bootableDevice", "automount"};

std::string_view spelling(std::string_view category) {
    for (const auto& [name, shown] : kShortNames)
        if (vorn::equalsIgnoreCase(name, category)) return shown;
    return category;
}

// The value of the first RDN, which is short and plain in every category's DN.
std::string_view firstRdnValue(std::string_view dn) {
    const std::size_t equals = dn.find('=');
    if (equals == std::string_view::npos) return dn;
    return dn.substr(equals + 1, dn.find(',') - equals - 1);
}

}  // namespace

std::string categoryOfClass(std::string_view objectClass) {
    for (const auto& [name, category] : kCategories)
        if (vorn::equalsIgnoreCase(name, objectClass)) return std::string(category);
    return std::string(objectClass);
}

std::string categoryDn(std::string_view category, std::string_view rootDn) {
    std::string dn = "CN=";
    dn.append(category).append(",CN=Schema,CN=Configuration,").append(rootDn);
    return dn;
}

std::string shortCategory(std::string_view objectCategory, std::string_view specificClass) {
    const std::string_view category = firstRdnValue(objectCategory);
    if (!category.empty()) return std::string(spelling(category));
    return std::string(spelling(categoryOfClass(specificClass)));
}

bool isUnixClass(std::string_view objectClass) {
    return std::any_of(kUnixClasses.begin(), kUnixClasses.end(), [objectClass](std::string_view kind) {
        return vorn::equalsIgnoreCase(kind, objectClass);
    });
}

std::span<const std::string_view> unixClasses() {
    return kUnixClasses;
}

bool isInvalidEntry(std::string_view category, const UnixFacts& facts) {
    const bool account = facts.uidNumber && facts.gidNumber && facts.home;
    if (category == AD_USER_CATEGORY) return facts.refused || !account;
    if (category == "Group") return facts.refused || !facts.gidNumber;
    if (category == "Computer") return facts.refused || (!account && !facts.address);
    return false;
}

}  // namespace vexagent
