// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/membership.h"

#include <algorithm>

#include "agent/ad/filters.h"

namespace vexagent {
namespace {

constexpr std::size_t kValuesPerSearch = 10;

}  // namespace

std::vector<LdapSearch> searchesFor(const std::string& root, const char* name,
                                    const std::vector<std::string>& values,
                                    const std::vector<std::string>& attributes) {
    std::vector<LdapSearch> searches;
    for (auto first = values.begin(); first != values.end();) {
        const auto count = std::min<std::ptrdiff_t>(kValuesPerSearch, values.end() - first);
        searches.push_back(
            {root, LDAP_SCOPE_SUBTREE, anyOf(name, {first, first + count}), attributes, Extent::Few});
        first += count;
    }
    return searches;
}

LdapFailure tooManyGroups(std::size_t most) {
    return {LDAP_ADMINLIMIT_EXCEEDED,
            "membership goes through more than " + std::to_string(most) + " groups (ad.groups.max)", false,
            "membership goes through too many groups"};
}

const std::vector<std::string>& valuesOf(const Entry& entry, const char* name) {
    static const std::vector<std::string> none;
    const Attribute* attribute = entry.find(name);
    return attribute == nullptr ? none : attribute->values;
}

void sortOnce(std::vector<std::string>& names) {
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
}

}  // namespace vexagent
