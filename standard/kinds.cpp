// SPDX-License-Identifier: Apache-2.0
#include "standard/kinds.h"

#include <algorithm>

namespace standard {

const std::vector<std::size_t>* Kind::find(std::string_view type) const {
    const auto found = byType.find(type);
    return found == byType.end() ? nullptr : &found->second;
}

bool Kind::mayHaveClass(std::string_view name) const {
    const auto isIt = [name](const ShownClass& one) { return vorn::equalsIgnoreCase(one.name, name); };
    return std::any_of(classes.begin(), classes.end(), isIt) ||
           std::any_of(fallback.begin(), fallback.end(), isIt);
}

bool namesAccounts(const Kinds& kinds) {
    for (const Kind& kind : kinds) {
        const auto* uid = kind.sort == Sort::Person ? kind.find("uid") : nullptr;
        if (uid == nullptr) continue;
        const std::vector<std::string>& sources = kind.attributes[uid->front()].sources;
        return vorn::stringInList(sources, "sAMAccountName", false);
    }
    return true;
}

}  // namespace standard
