// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/own_login.h"

#include <sys/stat.h>

#include <algorithm>
#include <utility>

namespace vexagent {

void OwnLogin::Wait::add(Moment now) {
    until = now + std::min(kLongestDelay, kFirstDelay * (1 << std::min(refusals, 10)));
    ++refusals;
}

void OwnLogin::use(const std::string& what) {
    const std::lock_guard lock(m_mutex);
    if (m_what == what) return;
    m_what = what;
    m_peers.clear();
    m_all = {};
    m_inARow = 0;
    m_told = false;
}

bool OwnLogin::mayTry(const Peer& peer, Moment now) const {
    const std::lock_guard lock(m_mutex);
    if (m_inARow >= kControllers && now < m_all.until) return false;
    const auto wait = m_peers.find(peer);
    return wait == m_peers.end() || now >= wait->second.until;
}

bool OwnLogin::refused(const Peer& peer, Moment now) {
    const std::lock_guard lock(m_mutex);
    m_peers[peer].add(now);
    if (++m_inARow >= kControllers) m_all.add(now);
    m_acceptedAt = {};
    return !std::exchange(m_told, true);
}

bool OwnLogin::accepted(const Peer& peer, Moment now) {
    const std::lock_guard lock(m_mutex);
    m_peers.erase(peer);
    m_all = {};
    m_inARow = 0;
    m_acceptedAt = now;
    return m_peers.empty() && std::exchange(m_told, false);
}

std::unique_lock<std::timed_mutex> OwnLogin::takeTurn(const Deadline& deadline) {
    {
        const std::lock_guard lock(m_mutex);
        if (m_acceptedAt != Moment{} && deadline.clock().now() - m_acceptedAt < kTrustTime)
            return std::unique_lock(m_turn, std::defer_lock);
    }
    return std::unique_lock(m_turn, deadline.left());
}

std::string stampOf(const std::string& file) {
    struct stat status {};
    if (::stat(file.c_str(), &status) != 0) return {};
    const auto time = [](const timespec& moment) {
        return "." + std::to_string(moment.tv_sec) + "." + std::to_string(moment.tv_nsec);
    };
    return std::to_string(status.st_dev) + "." + std::to_string(status.st_ino) + "." +
           std::to_string(status.st_size) + time(status.st_mtim) + time(status.st_ctim);
}

}  // namespace vexagent
