// SPDX-License-Identifier: Apache-2.0
// What the search cache counts.
#pragma once

#include <cstdint>
#include <string>

// Plain numbers: whoever shares them guards them.
struct CacheCounts {
    // Operators' tools know where these six wrap.
    std::uint32_t hits = 0;
    std::uint32_t negHits = 0;
    std::uint32_t misses = 0;
    std::uint32_t expires = 0;
    std::uint32_t overflows = 0;
    std::uint32_t cloneErrs = 0;
    std::uint64_t evictedForBytes = 0;
    std::uint64_t refused = 0;  // what was too long, too large, or one too many for its chain

    // The first six as one line.
    std::string line() const {
        return "cache hits: " + std::to_string(hits) + ", negHits: " + std::to_string(negHits) +
               ", misses: " + std::to_string(misses) + ", expires: " + std::to_string(expires) +
               ", overflows: " + std::to_string(overflows) + ", cloneErrs: " + std::to_string(cloneErrs);
    }
};
