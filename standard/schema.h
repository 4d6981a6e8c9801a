// SPDX-License-Identifier: Apache-2.0
// What the kinds of entries must know of the schema that slapd has loaded.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "standard/kinds.h"

namespace standard {

struct AttributeFacts {
    std::string name;  // as the schema spells it
    Match match = Match::Other;
    bool operational = false;
    std::vector<std::string> types;  // itself and its superiors: assertions on these are about it
};

struct ClassFacts {
    std::string name;
    bool structural = false;
    std::vector<std::string> superiors;  // all of them, the most general first
    // The attributes' names, with those of the superiors.
    std::vector<std::string> must;
    std::vector<std::string> may;
};

class Schema {
  public:
    virtual ~Schema() = default;
    // By name or number, ignoring case; nothing: the schema does not know it.
    virtual std::optional<AttributeFacts> findAttribute(std::string_view name) const = 0;
    virtual std::optional<ClassFacts> findClass(std::string_view name) const = 0;
};

// slapd's own. Only read, once slapd has read its configuration.
const Schema& slapdSchema();

}  // namespace standard
