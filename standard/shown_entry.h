// SPDX-License-Identifier: Apache-2.0
// From one of the agent's objects to what clients are shown of it.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "standard/kinds.h"
#include "vex/vex.h"
#include "vorn/strings.h"

namespace standard {

// All that an object carries, by name ignoring case; with _dn and the agent's marks.
class AgentObject {
  public:
    using Values = std::vector<std::string>;

    AgentObject() = default;
    AgentObject(vexSession* session, const vexObject* object);

    void add(const std::string& name, std::string value) { m_values[name].push_back(std::move(value)); }
    const Values& values(const std::string& name) const;
    // The first value, or "".
    const std::string& first(const std::string& name) const;
    bool hasClass(std::string_view name) const;

  private:
    std::map<std::string, Values, vorn::StringCaseLessThan> m_values;
};

struct ShownValues {
    const ShownAttribute* attribute;  // the kind's
    std::vector<std::string> values;
};

struct ShownEntry {
    std::string dn;
    std::vector<std::string> classes;
    std::string structural;
    std::vector<ShownValues> attributes;
};

// The kind that an object is of, or null: then it is not shown.
const Kind* kindOf(const Kinds& kinds, const AgentObject& object);

// Whether there is an entry of it, by what the agent says of it.
bool isShown(const Kind& kind, const AgentObject& object);

// The DN that clients see: text, as the agent spells its parts.
std::string shownDn(const Kind& kind, const AgentObject& object);

// What the people are called whom a group of this kind shows as members.
std::vector<std::string> memberNames(const Kind& kind, const AgentObject& group);

// What a client sees of an object of the kind; nothing for one that is not shown.
std::optional<ShownEntry> show(const Kind& kind, const AgentObject& object);

}  // namespace standard
