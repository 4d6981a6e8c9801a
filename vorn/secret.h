// SPDX-License-Identifier: Apache-2.0
// Secrets: bytes that are wiped, never printed, and compared in constant time.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>
#include <string_view>

namespace vorn {

// Overwrites memory with zeros in a way that the optimiser cannot drop. For memory that is
// not a string's or a Secret's.
void wipe(void* memory, std::size_t size);

// Overwrites a string's characters and everything else in its buffer, up to its
// capacity (the short-string buffer included), and empties it. The buffer itself
// is kept.
void wipe(std::string& text);

// Whether both are the same. How long it takes depends on the lengths alone, so that it
// tells nothing of how much of a guess was right.
bool equalInConstantTime(std::string_view a, std::string_view b);

// Holds bytes of which nothing is left in memory when it ends, changes or is moved from.
// Not for several threads at once, save to read.
class Secret {
  public:
    Secret() = default;
    explicit Secret(std::string_view bytes) : m_text(bytes) {}
    explicit Secret(const char* text) : m_text(text) {}
    explicit Secret(std::string&&) = delete;  // which would be left behind as it is
    Secret(Secret&& other) noexcept { take(other.m_text); }
    Secret& operator=(Secret&& other) noexcept {
        if (this != &other) take(other.m_text);
        return *this;
    }
    Secret(const Secret&) = delete;
    Secret& operator=(const Secret&) = delete;
    ~Secret() { wipe(m_text); }

    // What it holds, until it changes or ends.
    const std::string& text() const { return m_text; }
    bool empty() const { return m_text.empty(); }
    std::size_t size() const { return m_text.size(); }

    // To fill it in place.
    char* data() { return m_text.data(); }
    // Keeps as many of the first bytes; what is new is zero.
    void resize(std::size_t size);
    void append(std::string_view bytes);
    void clear() { resize(0); }

    // In constant time.
    friend bool operator==(const Secret& a, const Secret& b) {
        return equalInConstantTime(a.m_text, b.m_text);
    }

  private:
    void take(std::string& text) noexcept;

    std::string m_text;  // of whose buffer nothing is in use behind its end
};

// Says that there is a secret, and nothing else: who logs one by mistake shows nothing.
std::ostream& operator<<(std::ostream& out, const Secret& secret);

}  // namespace vorn
