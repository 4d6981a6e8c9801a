// SPDX-License-Identifier: Apache-2.0
#include "vorn/hash.h"

namespace vorn {
namespace {

constexpr std::uint32_t kMultiplier = 0x5bd1e995;

// Byte by byte, so that neither alignment nor the machine's byte order matters.
// Written out, compilers make one load of it; of a loop they do not.
std::uint32_t fourBytes(const unsigned char* bytes) {
    return static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8 |
           static_cast<std::uint32_t>(bytes[2]) << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
}

std::uint32_t lastBytes(const unsigned char* bytes, int count) {
    std::uint32_t word = 0;
    for (int i = 0; i < count; ++i) word |= static_cast<std::uint32_t>(bytes[i]) << 8 * i;
    return word;
}

}  // namespace

std::uint32_t MurmurHash2(const void* data, int length, unsigned seed) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    std::uint32_t hash = seed ^ static_cast<std::uint32_t>(length);
    for (; length >= 4; bytes += 4, length -= 4) {
        std::uint32_t word = fourBytes(bytes) * kMultiplier;
        word ^= word >> 24;
        hash = hash * kMultiplier ^ word * kMultiplier;
    }
    if (length > 0) hash = (hash ^ lastBytes(bytes, length)) * kMultiplier;
    hash = (hash ^ hash >> 13) * kMultiplier;
    return hash ^ hash >> 15;
}

}  // namespace vorn
