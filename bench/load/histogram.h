// SPDX-License-Identifier: Apache-2.0
// Latencies by size: a count for each range, the ranges growing with the value, so
// that every quantile is right within 1/32 whatever its size.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>

namespace load {

class Histogram {
  public:
    void add(std::uint64_t value) {
        ++m_counts[range(value)];
        ++m_total;
    }

    std::uint64_t total() const { return m_total; }

    // The value that the share (0 to 1) of all does not exceed; 0 without any.
    std::uint64_t quantile(double share) const {
        const auto rank = static_cast<std::uint64_t>(share * static_cast<double>(m_total));
        std::uint64_t seen = 0;
        for (std::size_t i = 0; i < m_counts.size(); ++i) {
            seen += m_counts[i];
            if (seen > 0 && seen >= std::min(rank + 1, m_total)) return largest(i);
        }
        return 0;
    }

  private:
    static constexpr unsigned kBits = 5;  // a power of two has 32 ranges
    static constexpr std::uint64_t kRanges = 1U << kBits;

    // Values below 32 have a range of their own; then the leading bit and the five
    // behind it choose one.
    static std::size_t range(std::uint64_t value) {
        if (value < kRanges) return static_cast<std::size_t>(value);
        const unsigned shift = static_cast<unsigned>(std::bit_width(value)) - kBits - 1;
        return static_cast<std::size_t>(shift * kRanges + (value >> shift));
    }
    static std::uint64_t largest(std::size_t index) {
        if (index < kRanges) return index;
        const std::uint64_t shift = index / kRanges - 1;
        return ((index % kRanges + kRanges + 1) << shift) - 1;
    }

    std::array<std::uint64_t, (64 - kBits + 1) * kRanges> m_counts{};
    std::uint64_t m_total = 0;
};

}  // namespace load
