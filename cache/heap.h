// SPDX-License-Identifier: Apache-2.0
// How many bytes of the heap an allocation takes, for those who count them.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>

// The bytes that the C library takes for a block of that size: its own record, and
// what makes it a whole number of 16 bytes. Nothing for no block.
constexpr std::size_t heapBytes(std::size_t size) {
    constexpr std::size_t kRecord = 8, kLeast = 32, kUnit = 16;
    return size == 0 ? 0 : std::max(kLeast, (size + kRecord + kUnit - 1) / kUnit * kUnit);
}

// What a text takes beside its own record: nothing while it fits into that.
inline std::size_t heapBytes(const std::string& text) {
    static const std::size_t kInPlace = std::string().capacity();
    return text.capacity() > kInPlace ? heapBytes(text.capacity() + 1) : 0;
}

// What make_shared takes beside the value that it makes.
constexpr std::size_t kSharedRecord = 16;
