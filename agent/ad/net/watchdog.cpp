#include "agent/ad/net/watchdog.h"

#include <sys/socket.h>

#include "vorn/signals_blocked.h"

namespace vexagent {

Watchdog::Watchdog() {
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

Watchdog::Key Watchdog::add(int socket, const Deadline& deadline) {
    const std::lock_guard lock(m_mutex);
    const Key key{deadline.end(), ++m_next};
    m_sockets.emplace(key, socket);
    if (key.first < m_wakesAt) m_changed.notify_one();
    return key;
}

void Watchdog::remove(const Key& key) {
    const std::lock_guard lock(m_mutex);
    m_sockets.erase(key);
}

void Watchdog::run() {
    std::unique_lock lock(m_mutex);
    while (!m_stopping) {
        if (m_sockets.empty()) {
            m_wakesAt = Moment::max();
            m_changed.wait(lock);
            continue;
        }
        const auto first = m_sockets.begin();
        if (now() < first->first.first) {
            m_wakesAt = first->first.first;
            m_changed.wait_until(lock, Moment(m_wakesAt));
            continue;
        }
        // Under the lock: the socket cannot be closed before its watch has ended.
        ::shutdown(first->second, SHUT_RDWR);
        m_sockets.erase(first);
    }
}

}  // namespace vexagent
