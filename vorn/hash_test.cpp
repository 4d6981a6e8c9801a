// SPDX-License-Identifier: Apache-2.0
#include "vorn/hash.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

namespace vorn {
namespace {

// The algorithm's published check value: the hashes of the keys (), (0), (0 1),
// ... of up to 255 bytes, each with seed 256 minus its length, hashed in turn.
TEST(MurmurHash2, GivesThePublishedCheckValue) {
    std::array<unsigned char, 256> key;
    std::string hashes;
    for (int length = 0; length < 256; ++length) {
        key[static_cast<std::size_t>(length)] = static_cast<unsigned char>(length);
        const std::uint32_t hash = MurmurHash2(key.data(), length, static_cast<unsigned>(256 - length));
        for (int shift = 0; shift < 32; shift += 8) hashes += static_cast<char>(hash >> shift & 0xff);
    }
    EXPECT_EQ(MurmurHash2(hashes.data(), static_cast<int>(hashes.size()), 0), 0x27864C1Eu);
}

TEST(MurmurHash2, OfNothingWithSeedZeroIsZero) {
    EXPECT_EQ(MurmurHash2("", 0, 0), 0u);
}

TEST(MurmurHash2, ReadsFromAnyAlignment) {
    const std::string text = "xxxx(uid=jane)";
    const std::uint32_t expected = MurmurHash2(std::string("(uid=jane)").data(), 10, 7);
    for (std::size_t shift = 1; shift < 4; ++shift) {
        const std::string moved = text.substr(4 - shift);
        EXPECT_EQ(MurmurHash2(moved.data() + shift, 10, 7), expected);
    }
}

TEST(Murhash, SeedsAndTakesEveryByteOfTheKey) {
    const std::string key("a\0b", 3);
    EXPECT_EQ(murhash()(key), MurmurHash2(key.data(), 3, 0xdeadbeef));
    EXPECT_NE(murhash()(key), murhash()(std::string("a\0c", 3)));
}

}  // namespace
}  // namespace vorn
