// SPDX-License-Identifier: Apache-2.0
// Hashing for tables in memory; not for anything secret.
#pragma once

#include <cstdint>
#include <string_view>

namespace vorn {

// Austin Appleby's 32-bit MurmurHash2 of length bytes, read as little-endian.
std::uint32_t MurmurHash2(const void* data, int length, unsigned seed);

// The hash of a key of the search cache's tables.
struct murhash {
    using is_transparent = void;
    std::uint32_t operator()(std::string_view key) const {
        return MurmurHash2(key.data(), static_cast<int>(key.size()), 0xdeadbeef);
    }
};

}  // namespace vorn
