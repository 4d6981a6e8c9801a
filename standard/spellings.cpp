// SPDX-License-Identifier: Apache-2.0
#include "standard/spellings.h"

#include <algorithm>

namespace standard {
namespace {

constexpr std::size_t kMostBytes = 4096;  // of a name

// The characters beyond ASCII, by the first byte of each.
auto charactersBeyondAscii(std::string_view text) {
    return std::count_if(text.begin(), text.end(),
                         [](char c) { return static_cast<unsigned char>(c) >= 0xC0; });
}

auto asciiCharacters(std::string_view text) {
    return std::count_if(text.begin(), text.end(), [](char c) { return static_cast<signed char>(c) > ' '; });
}

// Whether preparation has made ASCII, or nothing, of one of its characters.
bool isLostInPreparation(std::string_view dn, std::string_view normal) {
    const auto before = charactersBeyondAscii(dn);
    return before != 0 &&
           (before > charactersBeyondAscii(normal) || asciiCharacters(normal) > asciiCharacters(dn));
}

}  // namespace

void Spellings::learn(std::string_view dn, std::string_view normal) {
    if (!isLostInPreparation(dn, normal) || dn.size() > kMostBytes) return;
    {
        const vorn::ReaderLock guard(m_lock);
        const auto known = m_names.find(normal);
        if (known != m_names.end() && known->second == dn) return;
    }
    const vorn::WriterLock guard(m_lock);
    // Which of them are wanted again nobody knows; and there are few.
    if (m_names.size() >= m_most) m_names.clear();
    m_names.insert_or_assign(std::string(normal), std::string(dn));
}

std::optional<std::string> Spellings::of(std::string_view normal) {
    const vorn::ReaderLock guard(m_lock);
    const auto known = m_names.find(normal);
    if (known == m_names.end()) return std::nullopt;
    return known->second;
}

Spellings& spellings() {
    static Spellings& theOnes = *new Spellings;
    return theOnes;
}

}  // namespace standard
