#include "agent/embedded/categories.h"

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

bool has(const ldb_message* message, const char* name) {
    return !firstValue(message, name).empty();
}

bool isPosixAccount(const ldb_message* message) {
    return has(message, "uidNumber") && has(message, "gidNumber") && has(message, "unixHomeDirectory");
}

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

std::string categoryDn(std::string_view category, std::string_view domainDn) {
    std::string dn = "CN=";
    dn.append(category).append(",CN=Schema,CN=Configuration,").append(domainDn);
    return dn;
}

std::string_view specificClass(const ldb_message* message) {
    const ldb_message_element* classes = ldb_msg_find_element(message, "objectClass");
    if (classes == nullptr || classes->num_values == 0) return {};
    return bytesOf(classes->values[classes->num_values - 1]);
}

std::string shortCategory(const ldb_message* message) {
    const std::string_view category = firstRdnValue(firstValue(message, "objectCategory"));
    if (!category.empty()) return std::string(spelling(category));
    return std::string(spelling(categoryOfClass(specificClass(message))));
}

bool isUnixKind(const ldb_message* message) {
    const ldb_message_element* classes = ldb_msg_find_element(message, "objectClass");
    if (classes == nullptr) return false;
    for (unsigned i = 0; i < classes->num_values; ++i) {
        const std::string_view name = bytesOf(classes->values[i]);
        if (std::any_of(kUnixClasses.begin(), kUnixClasses.end(),
                        [name](std::string_view kind) { return vorn::equalsIgnoreCase(kind, name); }))
            return true;
    }
    return false;
}

bool isInvalidEntry(const ldb_message* message, std::string_view category) {
    if (category == AD_USER_CATEGORY) return !isPosixAccount(message);
    if (category == "Group") return !has(message, "gidNumber");
    if (category == "Computer")
        return !isPosixAccount(message) && !has(message, "ipHostNumber") && !has(message, "macAddress");
    return false;
}

}  // namespace vexagent
