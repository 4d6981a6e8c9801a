// SPDX-License-Identifier: Apache-2.0
// What entries say of other entries: attributes such as manager hold real DNs, and clients are
// to see the names that these objects are shown by.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "standard/shown_entry.h"

#include "backend/base/slapd_fwd.h"

namespace standard {

// Those of one search. Asks the agent, or the cache, once for each DN, and for many at a time.
class References {
  public:
    // By name or not, whether the search's client asks for an attribute whose values are DNs, or
    // its filter asserts one. A null filter: of one entry all is wanted.
    References(const Operation* op, const Filter* filter);
    bool areWanted() const { return m_wanted; }

    // Whether an entry names others, so that show would change it.
    static bool areIn(const ShownEntry& shown);

    // Puts shown names in the place of real ones. What names nothing that is shown stays as it
    // is. VEX_OK, or why it could not be told.
    vexCode show(ShownEntry* shown);

  private:
    vexCode learn(const std::vector<std::string>& dns);
    vexCode ask(const std::string& filter, std::map<std::string, std::string>* shown);

    const Operation* const m_op;
    const bool m_wanted;
    std::map<std::string, std::string> m_names;  // shown ones by real ones, of what is known by now
};

}  // namespace standard
