// SPDX-License-Identifier: Apache-2.0
// An entry as a controller sent it.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "agent/directory/directory.h"

namespace vexagent {

struct Entry {
    std::string dn;
    std::vector<Attribute> attributes;

    // Null, or empty, when the entry does not carry the attribute.
    const Attribute* find(std::string_view name) const;
    std::string_view first(std::string_view name) const;
};

// About how many bytes the entry takes as an object.
std::size_t entryBytes(const Entry& entry);

}  // namespace vexagent
