// SPDX-License-Identifier: Apache-2.0
#include "cache/prime_buckets.h"

#include <algorithm>
#include <array>
#include <iterator>

namespace {

// About a doubling from one to the next, so that growing from prime to prime
// costs an insertion a constant time on average.
constexpr std::array<std::size_t, 40> kPrimes = {
    5,        11,        17,        29,        37,        53,         67,         79,
    97,       131,       193,       257,       389,       521,        769,        1031,
    1543,     2053,      3079,      6151,      12289,     24593,      49157,      98317,
    196613,   393241,    786433,    1572869,   3145739,   6291469,    12582917,   25165843,
    50331653, 100663319, 201326611, 402653189, 805306457, 1610612741, 3221225473, 4294967291};

}  // namespace

std::size_t primeBuckets(std::size_t request) {
    const auto* prime = std::lower_bound(kPrimes.begin(), kPrimes.end(), request);
    return prime == kPrimes.end() ? kPrimes.back() : *prime;
}
