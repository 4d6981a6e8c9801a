// SPDX-License-Identifier: Apache-2.0
// What this process holds open, for tests of what is closed again.
#pragma once

#include <cstddef>
#include <filesystem>

namespace vorn::test {

// With the one that it takes to look.
inline std::size_t openDescriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

}  // namespace vorn::test
