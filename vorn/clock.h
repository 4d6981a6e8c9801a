// The time, passed in where a test wants to choose it.
#pragma once

#include <ctime>

namespace vorn {

// Gives the current calendar time in seconds; the default is time(NULL).
using Clock = std::time_t (*)();

inline std::time_t systemTime() {
    return std::time(nullptr);
}

}  // namespace vorn
