#include "search/handles.h"

#include <algorithm>
#include <utility>

#include "backend/log.h"

#include "backend/slapd.h"

SearchHandleManager* back_vex_search_handle = nullptr;

namespace {

std::uint64_t address(const void* pointer) {
    return reinterpret_cast<std::uint64_t>(pointer);
}

// The part of an address that the log shows.
unsigned shownAddress(const SharedHandle& handle) {
    return static_cast<unsigned>(address(handle.get()));
}

}  // namespace

LdapSearchHandle::~LdapSearchHandle() {
    if (search != nullptr) {
        vexSession* const searchSession = search->session;
        vexLdapSearchClose(search);
        if (searchSession != nullptr) vexSessionClose(searchSession);
    }
    if (cache.session != nullptr) vexSessionClose(cache.session);
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
    const vorn::WriterLock lock(m_lock);
    m_held.erase(connection);
    const auto found = m_handles.find(connection);
    if (found == m_handles.end()) return;
    JPrintf("delSearchHandle: connection_id:%lu", connection);
    delSearchHandle(found);
}

// The caller holds the write lock.
void SearchHandleManager::delSearchHandle(Handles::iterator position) {
    if (position->second != nullptr)
        JPrintf("delSearchHandle: handle:0x%08x", shownAddress(position->second));
    m_handles.erase(position);
}

void SearchHandleManager::clearAllSearchHandle() {
    const vorn::WriterLock lock(m_lock);
    m_held.clear();
    while (!m_handles.empty()) delSearchHandle(m_handles.begin());
}

void SearchHandleManager::issue(unsigned long connection, OpenPage page) {
    const vorn::WriterLock lock(m_lock);
    m_held[connection].issued.push_back(std::move(page));
}

std::optional<OpenPage> SearchHandleManager::claim(unsigned long connection, std::uint64_t received,
                                                   std::uint64_t handle, std::uint64_t entry) {
    const vorn::WriterLock lock(m_lock);
    const auto held = m_held.find(connection);
    if (held == m_held.end()) return std::nullopt;
    auto& issued = held->second.issued;
    const auto found = std::find_if(issued.begin(), issued.end(), [&](const OpenPage& page) {
        return page.received == received && address(page.handle.get()) == handle &&
               address(page.pending.get()) == entry;
    });
    if (found == issued.end()) return std::nullopt;
    OpenPage page = std::move(*found);
    issued.erase(found);
    return page;
}

void SearchHandleManager::keep(unsigned long connection, SharedHandle handle) {
    const vorn::WriterLock lock(m_lock);
    m_held[connection].kept.push_back(std::move(handle));
}
