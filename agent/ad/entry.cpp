// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/entry.h"

#include "vorn/strings.h"

namespace vexagent {

const Attribute* Entry::find(std::string_view name) const {
    for (const Attribute& attribute : attributes)
        if (vorn::equalsIgnoreCase(attribute.name, name)) return &attribute;
    return nullptr;
}

std::string_view Entry::first(std::string_view name) const {
    const Attribute* attribute = find(name);
    return attribute == nullptr || attribute->values.empty() ? std::string_view() : attribute->values[0];
}

std::size_t entryBytes(const Entry& entry) {
    std::size_t bytes = 64 + entry.dn.size();
    for (const Attribute& attribute : entry.attributes) {
        bytes += 24 + attribute.name.size();
        for (const std::string& value : attribute.values) bytes += 12 + value.size();
    }
    return bytes;
}

}  // namespace vexagent
