// SPDX-License-Identifier: Apache-2.0
#include "search/handles.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "backend/base/log.h"

#include "backend/base/slapd.h"

SearchHandleManager* back_vex_search_handle = nullptr;

namespace {

// The part of an address that the log shows.
unsigned shownAddress(const SharedHandle& handle) {
    return static_cast<unsigned>(reinterpret_cast<std::uint64_t>(handle.get()));
}

// A page that nobody may claim any more. Its search ends with it, although the handle
// may stay registered.
struct EndedPage {
    OpenPage page;
    ~EndedPage() {
        if (page.handle != nullptr) page.handle->end();
    }
};

}  // namespace

void LdapSearchHandle::end() {
    if (search != nullptr) {
        vexSession* const searchSession = search->session;
        vexLdapSearchClose(std::exchange(search, nullptr));
        if (searchSession != nullptr) vexSessionClose(searchSession);
    }
    if (cache.session != nullptr) vexSessionClose(std::exchange(cache.session, nullptr));
}

// slapd's name of a peer is "IP=ADDRESS:PORT", or "PATH=..." without a port.
std::string peerOf(const Operation& op) {
    const berval& name = op.o_conn->c_peer_name;
    const std::string_view text(name.bv_val, name.bv_len);
    return std::string(text.starts_with("IP=") ? text.substr(0, text.rfind(':')) : text);
}

void SearchHandleManager::setSearchHandle(unsigned long connection, const SharedHandle& handle) {
    const vorn::WriterLock lock(m_lock);
    if (m_handles.contains(connection)) return;
    JPrintf("setSearchHandle: connection_id:%lu, handle:0x%08x", connection, shownAddress(handle));
    m_handles.emplace(connection, handle);
}

SharedHandle SearchHandleManager::getSearchHandle(unsigned long connection) {
    const vorn::ReaderLock lock(m_lock);
    const auto found = m_handles.find(connection);
    return found == m_handles.end() ? nullptr : found->second;
}

void SearchHandleManager::delSearchHandle(unsigned long connection) {
    SharedHandle registered;
    Connected held;
    const vorn::WriterLock lock(m_lock);
    if (const auto found = m_connected.find(connection); found != m_connected.end()) {
        held = std::move(found->second);
        m_open -= held.issued.size() + held.kept.size();
        m_connected.erase(found);
    }
    const auto found = m_handles.find(connection);
    if (found == m_handles.end()) return;
    JPrintf("delSearchHandle: connection_id:%lu", connection);
    registered = takeOut(found);
}

SharedHandle SearchHandleManager::takeOut(Handles::iterator position) {
    SharedHandle handle = std::move(position->second);
    if (handle != nullptr) JPrintf("delSearchHandle: handle:0x%08x", shownAddress(handle));
    m_handles.erase(position);
    return handle;
}

void SearchHandleManager::clearAllSearchHandle() {
    std::deque<SharedHandle> registered;
    std::map<unsigned long, Connected> held;
    const vorn::WriterLock lock(m_lock);
    held.swap(m_connected);
    m_open = 0;
    while (!m_handles.empty()) registered.push_back(takeOut(m_handles.begin()));
}

void SearchHandleManager::issue(unsigned long connection, const std::string& peer, OpenPage page) {
    EndedPage ended;
    const vorn::WriterLock lock(m_lock);
    ended.page = add(connection, peer, &Connected::issued, std::move(page));
}

std::optional<OpenPage> SearchHandleManager::claim(unsigned long connection, std::uint64_t received,
                                                   const PageName& name) {
    const vorn::WriterLock lock(m_lock);
    const auto held = m_connected.find(connection);
    if (held == m_connected.end()) return std::nullopt;
    Line& issued = held->second.issued;
    const auto found = std::find_if(issued.begin(), issued.end(), [&](const Held& one) {
        return one.page.received == received && one.page.name == name;
    });
    if (found == issued.end()) return std::nullopt;
    OpenPage page = std::move(found->page);
    issued.erase(found);
    --m_open;
    return page;
}

void SearchHandleManager::keep(unsigned long connection, const std::string& peer, SharedHandle handle) {
    EndedPage ended;
    const vorn::WriterLock lock(m_lock);
    ended.page = add(connection, peer, &Connected::kept, {std::move(handle), nullptr, 0, {}});
}

// Gives what has to end for it: one at most.
OpenPage SearchHandleManager::add(unsigned long connection, const std::string& peer, Line Connected::*line,
                                  OpenPage page) {
    Connected& connected = m_connected[connection];
    connected.peer = peer;
    Line& own = connected.*line;
    own.push_back({++m_lastNumber, std::move(page)});
    ++m_open;
    if (own.size() > kMaxOfConnection) return takeOldest(own);
    if (m_open > kMaxOfProcess) return takeOldest(oldestLineOf(greediestPeer(peer)));
    return {};
}

OpenPage SearchHandleManager::takeOldest(Line& line) {
    OpenPage oldest = std::move(line.front().page);
    line.pop_front();
    --m_open;
    return oldest;
}

// The line whose front is the oldest of what the peer holds. A kept handle, which no
// cookie names, is missed by nobody: it goes before a page.
SearchHandleManager::Line& SearchHandleManager::oldestLineOf(const std::string& peer) {
    Line* oldest[] = {nullptr, nullptr};  // of the kept ones, of the pages
    const auto consider = [](Line*& best, Line& line) {
        if (!line.empty() && (best == nullptr || line.front().number < best->front().number)) best = &line;
    };
    for (auto& [connection, connected] : m_connected) {
        if (connected.peer != peer) continue;
        consider(oldest[0], connected.kept);
        consider(oldest[1], connected.issued);
    }
    return oldest[0] != nullptr ? *oldest[0] : *oldest[1];
}

// The peer that holds most. Of several that do, the preferred one.
std::string SearchHandleManager::greediestPeer(const std::string& preferred) const {
    std::map<std::string_view, std::size_t> held;
    for (const auto& [connection, connected] : m_connected)
        held[connected.peer] += connected.issued.size() + connected.kept.size();
    const auto most = std::max_element(held.begin(), held.end(),
                                       [](const auto& a, const auto& b) { return a.second < b.second; });
    return std::string(held[preferred] == most->second ? std::string_view(preferred) : most->first);
}
