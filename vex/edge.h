// What every function of the C interface does at its edge.
#pragma once

#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

#include "vex/vex.h"

namespace vex {

// Runs the body of a call; whatever it throws becomes a code.
template <typename Body>
vexCode guarded(Body&& body) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return VEX_NO_MEMORY;
    } catch (...) {
        return VEX_BROKEN_SESSION;
    }
}

template <typename T, typename U>
void put(T* place, const U& value) {
    if (place) *place = value;
}

// A copy for vexFreeString. Throws std::bad_alloc.
inline char* newString(std::string_view text) {
    auto* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (!copy) throw std::bad_alloc();
    std::memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    return copy;
}

}  // namespace vex
