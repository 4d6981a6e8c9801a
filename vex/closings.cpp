// SPDX-License-Identifier: Apache-2.0
#include "vex/closings.h"

#include <utility>

#include "vex/socket.h"

namespace vex {

Closings& Closings::process() {
    static Closings* const theOnes = new Closings;
    return *theOnes;
}

void Closings::add(pid_t agent, std::uint64_t search) {
    const auto closings = m_closings.lock();
    if (closings->size() >= kMost) return;
    closings->push_back({agent, generation(), search});
    m_any.store(true, std::memory_order_release);
}

std::vector<std::uint64_t> Closings::take(pid_t agent) {
    std::vector<std::uint64_t> searches;
    if (!m_any.load(std::memory_order_acquire)) return searches;  // as a rule
    std::vector<Closing> closings;
    {
        const auto held = m_closings.lock();
        closings.swap(*held);
        m_any.store(false, std::memory_order_release);
    }
    for (const Closing& closing : closings) {
        if (closing.agent == agent && closing.generation == generation()) searches.push_back(closing.search);
    }
    return searches;
}

}  // namespace vex
