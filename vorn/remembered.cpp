#include "vorn/remembered.h"

namespace vorn {
namespace {

// What a text takes beside its bytes.
constexpr std::size_t kRecord = 80;

}  // namespace

bool Remembered::add(std::string_view text) {
    const std::size_t bytes = text.size() + kRecord;
    const std::lock_guard guard(m_mutex);
    if (m_texts.contains(text)) return false;
    if (bytes > m_most) return true;
    if (m_bytes + bytes > m_most) m_texts.clear(), m_bytes = 0;
    m_texts.emplace(text);
    m_bytes += bytes;
    return true;
}

bool Remembered::has(std::string_view text) const {
    const std::lock_guard guard(m_mutex);
    return m_texts.contains(text);
}

void Remembered::forget() {
    const std::lock_guard guard(m_mutex);
    m_texts.clear();
    m_bytes = 0;
}

}  // namespace vorn
