// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/watchdog.h"

#include <sys/socket.h>

#include "vorn/signals_blocked.h"

namespace vexagent {

WatchList::Key WatchList::add(int socket, vorn::Moment end) {
    const Key key{end, ++m_count};
    m_sockets.emplace(key, socket);
    return key;
}

std::optional<int> WatchList::takeOverdue(vorn::Moment now) {
    const auto first = m_sockets.begin();
    if (first == m_sockets.end() || now < first->first.first) return std::nullopt;
    const int socket = first->second;
    m_sockets.erase(first);
    return socket;
}

vorn::Moment WatchList::next() const {
    return m_sockets.empty() ? vorn::Moment::max() : m_sockets.begin()->first.first;
}

Watchdog::Watchdog(const vorn::SteadyClock& clock) : m_clock(clock) {
    const vorn::SignalsBlocked blocked;
    m_thread = std::thread([this] { run(); });
}

Watchdog::~Watchdog() {
    {
        const std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_changed.notify_one();
    m_thread.join();
}

WatchList::Key Watchdog::add(int socket, vorn::Moment end) {
    const std::lock_guard lock(m_mutex);
    const WatchList::Key key = m_watched.add(socket, end);
    if (end < m_wakesAt) m_changed.notify_one();
    return key;
}

void Watchdog::remove(const WatchList::Key& key) {
    const std::lock_guard lock(m_mutex);
    m_watched.remove(key);
}

void Watchdog::run() {
    std::unique_lock lock(m_mutex);
    while (!m_stopping) {
        // Under the lock: the socket cannot be closed before its watch has ended.
        while (const std::optional<int> socket = m_watched.takeOverdue(m_clock.now()))
            ::shutdown(*socket, SHUT_RDWR);
        m_wakesAt = m_watched.next();
        if (m_wakesAt == vorn::Moment::max())
            m_changed.wait(lock);
        else
            m_changed.wait_for(lock, vorn::Deadline(m_clock, m_wakesAt).left());
    }
}

}  // namespace vexagent
