// SPDX-License-Identifier: Apache-2.0
#include "agent/directory/schema.h"

#include <algorithm>

#include "vorn/attribute_name.h"
#include "vorn/secret_names.h"

namespace vexagent {
namespace {

// Not names of attributes: all, none, operational ones, and the agent's own.
bool isSpecial(std::string_view name) {
    return name == "*" || name == "1.1" || name == "+" || name.starts_with('_');
}

}  // namespace

void Schema::addAttribute(std::string number, std::string name) {
    m_names.insert_or_assign(std::move(number), std::move(name));
}

std::optional<std::string> Schema::nameOf(std::string_view description) const {
    if (!vorn::isAttributeName(description)) return std::nullopt;
    if (!vorn::isNumericName(description)) return std::string(description);
    const auto known = m_names.find(vorn::numberOf(description));
    if (known == m_names.end()) return std::nullopt;
    return known->second + std::string(description.substr(vorn::withoutOptions(description).size()));
}

bool Schema::isSecret(std::string_view name) const {
    return vorn::isSecretName(name) || m_confidential.contains(vorn::withoutOptions(name));
}

View Schema::resolve(View view) const {
    if (view.attributes.empty()) return view;
    std::vector<std::string> names;
    for (std::string& asked : view.attributes) {
        if (isSpecial(asked)) {
            names.push_back(std::move(asked));
        } else if (std::optional<std::string> name = nameOf(asked); name && !isSecret(*name)) {
            names.push_back(std::move(*name));
        }
    }
    // An empty list would ask for all.
    if (names.empty()) names.emplace_back("1.1");
    view.attributes = std::move(names);
    return view;
}

void Schema::removeSecrets(std::vector<Attribute>& attributes) const {
    std::erase_if(attributes, [this](const Attribute& attribute) { return isSecret(attribute.name); });
}

std::vector<std::string> Schema::names() const {
    std::set<std::string, vorn::StringCaseLessThan> found;
    for (const auto& [number, name] : m_names)
        if (!isSecret(name)) found.insert(name);
    return {found.begin(), found.end()};
}

}  // namespace vexagent
