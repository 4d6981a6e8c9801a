// SPDX-License-Identifier: Apache-2.0
// What was met before, as long as there is room for it.
#pragma once

#include <cstddef>
#include <functional>
#include <set>
#include <string>
#include <string_view>

#include "vorn/guarded.h"

namespace vorn {

// Texts, the very bytes of them. Those that would take more than the bound are forgotten
// all at once, and it begins anew; one that is longer by itself is never remembered. Safe
// for use by several threads.
class Remembered {
  public:
    explicit Remembered(std::size_t mostBytes) : m_most(mostBytes) {}

    // Whether it was not remembered before.
    bool add(std::string_view text);
    bool has(std::string_view text) const;
    void forget();

  private:
    struct Known {
        std::set<std::string, std::less<>> texts;
        std::size_t bytes = 0;  // what they take, about
    };

    const std::size_t m_most;
    Guarded<Known> m_known;
};

}  // namespace vorn
