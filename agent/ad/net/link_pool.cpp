// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/link_pool.h"

namespace vexagent {
namespace {

constexpr milliseconds kProbeTime{1000};

}  // namespace

bool LinkPool::Lease::keep() {
    const std::lock_guard lock(m_pool->m_mutex);
    if (m_pool->m_long >= m_pool->mostLong()) return false;
    ++m_pool->m_long;
    m_long = true;
    return true;
}

void LinkPool::giveBack(std::unique_ptr<Link> link, bool wasLong, bool reusable) {
    const bool keep = reusable && link->looksUsable();
    link->setPatience(nullptr);
    const std::lock_guard lock(m_mutex);
    if (wasLong) --m_long;
    std::vector<Idle>& idle = m_idle[link->peer()];
    if (keep && idle.size() < m_context.options.connections)
        idle.push_back({std::move(link), m_context.clock.now()});
}

std::optional<LinkPool::Turn> LinkPool::takeTurn(const Deadline& deadline) {
    std::unique_lock lock(m_mutex);
    if (!m_changed.wait_for(lock, deadline.left(),
                            [this] { return m_running < m_context.options.connections; }))
        return std::nullopt;
    ++m_running;
    return Turn(*this);
}

void LinkPool::endTurn() {
    const std::lock_guard lock(m_mutex);
    --m_running;
    m_changed.notify_all();
}

std::optional<LinkPool::Idle> LinkPool::takeYoungest(const Peer& peer) {
    const std::lock_guard lock(m_mutex);
    std::vector<Idle>& links = m_idle[peer];
    if (links.empty()) return std::nullopt;
    Idle idle = std::move(links.back());
    links.pop_back();
    return idle;
}

std::unique_ptr<Link> LinkPool::take(const Peer& peer, const Deadline& deadline) {
    while (std::optional<Idle> idle = takeYoungest(peer)) {
        if (!idle->link->looksUsable()) continue;
        if (m_context.clock.now() - idle->since < kTrustTime) return std::move(idle->link);
        const Deadline soon = deadline.atMost(kProbeTime);
        if (LinkReader(*idle->link, m_context.pages, soon).probe()) return std::move(idle->link);
    }
    return nullptr;
}

void LinkPool::drop(const Peer& peer) {
    std::vector<Idle> links;  // closed without the lock
    const std::lock_guard lock(m_mutex);
    links.swap(m_idle[peer]);
}

void LinkPool::dropOld() {
    std::vector<Idle> old;  // closed without the lock
    const std::lock_guard lock(m_mutex);
    const Moment now = m_context.clock.now();
    for (auto& [peer, links] : m_idle)
        for (auto idle = links.begin(); idle != links.end();) {
            const bool over = now - idle->since > kIdleTime || !idle->link->looksUsable();
            if (over) old.push_back(std::move(*idle));
            idle = over ? links.erase(idle) : std::next(idle);
        }
}

}  // namespace vexagent
