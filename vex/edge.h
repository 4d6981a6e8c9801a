// SPDX-License-Identifier: Apache-2.0
// What every function of the C interface does at its edge.
#pragma once

#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

#include "vex/vex.h"

// Of vorn/lock.h, in a program that has locks of this kind.
extern "C" __attribute__((weak)) void vorn_assert_no_lock_held();

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

// The same for a call that may wait for the agent. The caller's threads would wait with
// it if the caller held a lock: one that is built with sanitizers is told so.
template <typename Body>
vexCode guardedWait(Body&& body) noexcept {
#ifdef ZX_SANITIZED
    if (vorn_assert_no_lock_held != nullptr) vorn_assert_no_lock_held();
#endif
    return guarded(body);
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
