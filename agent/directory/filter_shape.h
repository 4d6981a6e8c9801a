// SPDX-License-Identifier: Apache-2.0
// A filter's size, told from its text before anything is made of it.
#pragma once

#include <cstddef>
#include <string_view>

namespace vexagent {

// What a filter may have of assertions, of lists and of substrings' pieces each.
inline constexpr std::size_t kMostAssertions = 4096;
// What is worked on at once, and not behind other work, has no more of each.
inline constexpr std::size_t kMostForQuick = 64;

struct FilterShape {
    std::size_t size = 0;  // assertions, lists or pieces, whichever are most
    bool whole = false;    // one filter, and nothing behind it
};

// Costs one pass over the text.
FilterShape shapeOf(std::string_view filter);

}  // namespace vexagent
