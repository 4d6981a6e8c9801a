// SPDX-License-Identifier: Apache-2.0
#include "vorn/secret.h"

#include <algorithm>
#include <cstring>
#include <ostream>
#include <utility>

namespace vorn {
namespace {

// resize within the capacity never moves the text, and it makes every byte of the
// buffer one of the string's own characters.
void wipeBuffer(std::string& text) {
    text.resize(text.capacity());
    wipe(text.data(), text.size());
    text.clear();
}

}  // namespace

void wipe(void* memory, std::size_t size) {
    if (size != 0) explicit_bzero(memory, size);
}

// A string that grew out of its short-string buffer leaves the characters there.
// Its long buffer is lent to another string meanwhile, which makes the short one
// reachable.
void wipe(std::string& text) {
    wipeBuffer(text);
    if (text.capacity() == std::string().capacity()) return;  // that was the short one
    std::string longBuffer;
    longBuffer.swap(text);
    wipeBuffer(text);
    text.swap(longBuffer);
}

bool equalInConstantTime(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    unsigned difference = 0;
    for (std::size_t i = 0; i < a.size(); ++i) difference |= static_cast<unsigned char>(a[i] ^ b[i]);
    return difference == 0;
}

// A short string's bytes are still in the source after a move.
void Secret::take(std::string& text) noexcept {
    wipe(m_text);
    m_text = std::move(text);
    wipe(text);
}

void Secret::resize(std::size_t size) {
    if (size < m_text.size()) wipe(m_text.data() + size, m_text.size() - size);
    if (size > m_text.capacity()) {
        // By hand: a string that grows by itself leaves a copy behind.
        std::string longer;
        longer.reserve(std::max(size, 2 * m_text.size()));
        longer.append(m_text);
        take(longer);
    }
    m_text.resize(size);
}

void Secret::append(std::string_view bytes) {
    const std::size_t before = size();
    resize(before + bytes.size());
    bytes.copy(data() + before, bytes.size());
}

std::ostream& operator<<(std::ostream& out, const Secret&) {
    return out << "(a secret)";
}

}  // namespace vorn
