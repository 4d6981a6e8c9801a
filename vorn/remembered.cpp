// SPDX-License-Identifier: Apache-2.0
#include "vorn/remembered.h"

namespace vorn {
namespace {

// What a text takes beside its bytes.
constexpr std::size_t kRecord = 80;

}  // namespace

bool Remembered::add(std::string_view text) {
    const std::size_t bytes = text.size() + kRecord;
    const auto known = m_known.lock();
    if (known->texts.contains(text)) return false;
    if (bytes > m_most) return true;
    if (known->bytes + bytes > m_most) *known = {};
    known->texts.emplace(text);
    known->bytes += bytes;
    return true;
}

bool Remembered::has(std::string_view text) const {
    return m_known.lock()->texts.contains(text);
}

void Remembered::forget() {
    *m_known.lock() = {};
}

}  // namespace vorn
