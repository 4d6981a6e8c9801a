// SPDX-License-Identifier: Apache-2.0
// Which attributes are indexed.

#include <algorithm>
#include <iterator>

#include "agent/directory/attributes.h"
#include "agent/embedded/database.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

// Values that name one object or few.
constexpr std::string_view kSelective[] = {
    "sAMAccountName", "uid",       "uidNumber", "cn",        "name",       "displayName", "userPrincipalName",
    "mail",           "objectSid", "member",    "memberUid", "objectGUID", "dn",          "distinguishedName",
    "ipHostNumber"};

// Values that many objects share: their index helps only a search for few of
// them.
constexpr std::string_view kBroad[] = {"gidNumber", "primaryGroupID", "objectClass", "objectCategory"};

// LDB reaches objects by these without an index record.
constexpr std::string_view kBuiltIn[] = {"objectGUID", "dn", "distinguishedName"};

template <std::size_t size>
bool holds(const std::string_view (&list)[size], std::string_view name) {
    return std::any_of(std::begin(list), std::end(list),
                       [name](std::string_view other) { return vorn::equalsIgnoreCase(other, name); });
}

void addRules(std::string& text, std::string_view name, std::string_view rule) {
    text.append(name).append(": ").append(rule).append("\n");
}

}  // namespace

bool isSelective(std::string_view attribute) {
    return holds(kSelective, attribute);
}
bool isIndexed(std::string_view attribute) {
    return isSelective(attribute) || holds(kBroad, attribute);
}
std::string schemaLdif() {
    std::string indexes = "dn: @INDEXLIST\n";
    for (std::string_view name : kSelective)
        if (!holds(kBuiltIn, name)) addRules(indexes, "@IDXATTR", name);
    for (std::string_view name : kBroad) addRules(indexes, "@IDXATTR", name);
    indexes += "@IDXONE: 1\n@IDXGUID: objectGUID\n@IDX_DN_GUID: GUID\n";

    std::string rules = "dn: @ATTRIBUTES\n*: CASE_INSENSITIVE\n";
    for (std::string_view name : integerAttributes()) addRules(rules, name, "INTEGER");
    for (std::string_view name : exactAttributes()) addRules(rules, name, "NONE");
    return indexes + "\n" + rules + "\n";
}

}  // namespace vexagent
