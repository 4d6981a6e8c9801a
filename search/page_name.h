// SPDX-License-Identifier: Apache-2.0
// The names that cookies give to open pages.
#pragma once

#include <cstdint>
#include <optional>

// Two random numbers, neither of them 0: they tell nothing of the process, and nobody
// guesses those of another's page.
struct PageName {
    std::uint64_t first = 0;
    std::uint64_t second = 0;

    bool operator==(const PageName&) const = default;

    // A new one from the system's generator; none when that has nothing to give.
    static std::optional<PageName> draw();
};
