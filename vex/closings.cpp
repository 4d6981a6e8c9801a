#include "vex/closings.h"

#include <utility>

#include "vex/socket.h"

namespace vex {

Closings& Closings::process() {
    static Closings* const theOnes = new Closings;
    return *theOnes;
}

void Closings::add(pid_t agent, std::uint64_t search) {
    const std::lock_guard guard(m_lock);
    if (m_closings.size() >= kMost) return;
    m_closings.push_back({agent, generation(), search});
    m_any.store(true, std::memory_order_release);
}

std::vector<std::uint64_t> Closings::take(pid_t agent) {
    std::vector<std::uint64_t> searches;
    if (!m_any.load(std::memory_order_acquire)) return searches;  // as a rule
    std::vector<Closing> closings;
    {
        const std::lock_guard guard(m_lock);
        closings.swap(m_closings);
        m_any.store(false, std::memory_order_release);
    }
    for (const Closing& closing : closings) {
        if (closing.agent == agent && closing.generation == generation()) searches.push_back(closing.search);
    }
    return searches;
}

}  // namespace vex
