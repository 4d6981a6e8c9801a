// What was met before, as long as there is room for it.
#pragma once

#include <cstddef>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <string_view>

namespace vorn {

// Texts, the very bytes of them. Those that would take more than the bound are forgotten
// all at once, and it begins anew; one that is longer by itself is never remembered. Safe
// for use by several threads.
class Remembered {
  public:
    explicit Remembered(std::size_t mostBytes) : m_most(mostBytes) {}

    // Whether it was not remembered before.
    bool add(std::string_view text);
    bool has(std::string_view text) const;
    void forget();

  private:
    const std::size_t m_most;
    mutable std::mutex m_mutex;
    std::set<std::string, std::less<>> m_texts;  // guarded by m_mutex, as is
    std::size_t m_bytes = 0;                     // what they take, about
};

}  // namespace vorn
