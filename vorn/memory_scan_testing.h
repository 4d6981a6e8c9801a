// SPDX-License-Identifier: Apache-2.0
// Looking for a secret in the process's own memory, for tests.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <vector>

namespace vorn::test {

// A secret that the program keeps only in disguise, each byte masked.
class Disguised {
  public:
    // Random letters.
    explicit Disguised(std::size_t size) : m_masked(size) {
        EXPECT_EQ(getrandom(m_masked.data(), size, 0), static_cast<ssize_t>(size));
        for (unsigned char& byte : m_masked) byte = static_cast<unsigned char>('A' + byte % 26) ^ kMask;
    }
    explicit Disguised(std::string_view text) {
        for (char c : text) m_masked.push_back(static_cast<unsigned char>(c) ^ kMask);
    }

    std::size_t size() const { return m_masked.size(); }
    // Writes the text itself, without a NUL; the place is the caller's to wipe.
    void reveal(void* place) const {
        auto* bytes = static_cast<unsigned char*>(place);
        for (unsigned char byte : m_masked) *bytes++ = byte ^ kMask;
    }
    // Its first byte's next place; null when there is none. Most memory is passed
    // over at memchr's speed.
    const unsigned char* nextFirst(const unsigned char* from, const unsigned char* end) const {
        return static_cast<const unsigned char*>(
            std::memchr(from, m_masked[0] ^ kMask, static_cast<std::size_t>(end - from)));
    }
    bool startsAt(const unsigned char* place) const {
        for (std::size_t i = 0; i < m_masked.size(); ++i)
            if ((place[i] ^ kMask) != m_masked[i]) return false;
        return true;
    }

  private:
    static constexpr unsigned char kMask = 0x5a;
    std::vector<unsigned char> m_masked;
};

// How often a secret stands in the writable mappings.
class MemoryScan {
  public:
    MemoryScan() : m_memory(::open("/proc/self/mem", O_RDONLY | O_CLOEXEC)), m_block(kBlock) {}
    ~MemoryScan() { ::close(m_memory); }
    MemoryScan(const MemoryScan&) = delete;
    MemoryScan& operator=(const MemoryScan&) = delete;

    int count(const Disguised& secret) {
        std::FILE* maps = std::fopen("/proc/self/maps", "re");
        char line[512];
        int found = 0;
        while (std::fgets(line, sizeof line, maps) != nullptr) {
            unsigned long start = 0, end = 0;
            char mode[5] = "";
            const bool read = std::sscanf(line, "%lx-%lx %4s", &start, &end, mode) == 3;
            if (read && mode[0] == 'r' && mode[1] == 'w' && end - start < kLargest)
                found += countIn(start, end, secret);
        }
        std::fclose(maps);
        explicit_bzero(m_block.data(), m_block.size());
        return found;
    }

  private:
    static constexpr std::size_t kBlock = 1 << 20;
    // A sanitizer's shadow memory is larger than this, whatever the program holds smaller.
    static constexpr std::uintptr_t kLargest = std::uintptr_t{1} << 28;

    // Blocks overlap by one secret; the block itself is not looked at.
    int countIn(std::uintptr_t start, std::uintptr_t end, const Disguised& secret) {
        const auto own = reinterpret_cast<std::uintptr_t>(m_block.data());
        int found = 0;
        for (std::uintptr_t place = start; place + secret.size() <= end; place += kBlock - secret.size()) {
            const ssize_t got = ::pread(m_memory, m_block.data(), std::min<std::size_t>(kBlock, end - place),
                                        static_cast<off_t>(place));
            const unsigned char* at = m_block.data();
            const unsigned char* const last = at + got - static_cast<ssize_t>(secret.size()) + 1;
            for (; at < last && (at = secret.nextFirst(at, last)) != nullptr; ++at) {
                const std::uintptr_t where = place + static_cast<std::uintptr_t>(at - m_block.data());
                const bool inBlock = where + secret.size() > own && where < own + kBlock;
                if (!inBlock && secret.startsAt(at)) ++found;
            }
        }
        return found;
    }

    const int m_memory;
    std::vector<unsigned char> m_block;
};

}  // namespace vorn::test
