// SPDX-License-Identifier: Apache-2.0
#include "vex/pool.h"

namespace vex {

Pool& Pool::process() {
    static Pool* const one = new Pool;
    return *one;
}

std::unique_ptr<Connection> Pool::take(const std::string& path) {
    // Those that are of no use are closed here, without the lock.
    while (std::unique_ptr<Connection> connection = pop())
        if (!connection->inherited() && connection->path() == path && connection->isQuiet())
            return connection;
    return nullptr;
}

std::unique_ptr<Connection> Pool::pop() {
    std::lock_guard guard(forkLock());
    if (m_idle.empty()) return nullptr;
    std::unique_ptr<Connection> connection = std::move(m_idle.back());
    m_idle.pop_back();
    return connection;
}

void Pool::give(std::unique_ptr<Connection> connection) {
    connection->shrink();
    keep(connection);  // one too many is closed here, without the lock
}

void Pool::keep(std::unique_ptr<Connection>& connection) {
    std::lock_guard guard(forkLock());
    if (connection->inherited() || m_idle.size() >= kMaxIdle) return;
    m_idle.push_back(std::move(connection));
}

}  // namespace vex
