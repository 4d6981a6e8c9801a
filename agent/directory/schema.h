// SPDX-License-Identifier: Apache-2.0
// What a directory's schema says about its attributes.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "agent/directory/directory.h"
#include "vorn/strings.h"

namespace vexagent {

// Knows nothing at first: then numbers mean nothing, and secrets are known by their
// names only. Once filled it may be read by several threads.
class Schema {
  public:
    void addAttribute(std::string number, std::string name);
    void addConfidential(std::string name) { m_confidential.insert(std::move(name)); }

    // The name that a client's attribute description means, options included: a
    // number is resolved. Nothing for a number that the schema does not know, and for
    // what is no attribute description.
    std::optional<std::string> nameOf(std::string_view description) const;

    // Whether the attribute is neither shown nor matched.
    bool isSecret(std::string_view name) const;

    // The view with the names that may be asked for in the place of those that were:
    // what means nothing, and secrets, are left out.
    View resolve(View view) const;

    // Takes out what is not shown.
    void removeSecrets(std::vector<Attribute>& attributes) const;

    // All attributes that are no secrets, each once, in order.
    std::vector<std::string> names() const;

  private:
    std::map<std::string, std::string, std::less<>> m_names;  // by number
    std::set<std::string, vorn::StringCaseLessThan> m_confidential;
};

}  // namespace vexagent
