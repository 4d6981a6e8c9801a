// Open searches, and what of them outlives a request.
//
// A paged search stays open between two requests of one connection. The client
// carries a cookie that names it; everything that a cookie can name is owned
// here, by connection, so nothing is lost when a client never comes back.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cache/search_cache.h"
#include "vex/vex.h"
#include "vorn/lock.h"

#include "backend/slapd.h"

// An entry of slapd's; its last owner frees it. One that is shared is only read.
using SharedEntry = std::shared_ptr<Entry>;

// The list that a search replays from the cache, or collects for it.
struct CacheLdapHandle {
    vexSession* session = nullptr;       // set only for a replay: an agent search has its own
    std::shared_ptr<GuidList> guidList;  // shared with the list cache when it came from there
    std::size_t cursor = 0;              // the next GUID to replay
};

// One open search: in the agent, or as a list of GUIDs that is replayed. Ends the
// agent's search and its session when it goes.
struct LdapSearchHandle {
    LdapSearchHandle() = default;
    ~LdapSearchHandle();
    LdapSearchHandle(const LdapSearchHandle&) = delete;
    LdapSearchHandle& operator=(const LdapSearchHandle&) = delete;

    // The session that the search runs in; null before it was opened.
    vexSession* session() const { return search != nullptr ? search->session : cache.session; }

    vexSearchHandle* search = nullptr;  // null for a replay
    CacheLdapHandle cache;

    // What the first page was: pages with another key, or whose first page could
    // not be cached, leave the cache alone.
    std::string key;
    bool storable = false;
};
using SharedHandle = std::shared_ptr<LdapSearchHandle>;

// The open search and the entry that did not fit in the page before, as a cookie
// names them, and how many entries the client has received: an address may be that of
// another entry a page later.
struct OpenPage {
    SharedHandle handle;
    SharedEntry pending;
    std::uint64_t received = 0;
};

// Safe for use by several threads; one instance a process.
class SearchHandleManager {
  public:
    // Registers a connection's handle. The first one stays registered.
    void setSearchHandle(unsigned long connection, const SharedHandle& handle);

    // The registered handle, or null.
    SharedHandle getSearchHandle(unsigned long connection);

    // A connection closes: releases its handle, and all that its cookies name.
    void delSearchHandle(unsigned long connection);

    // Releases everything.
    void clearAllSearchHandle();

    // Takes a page's state for a cookie, which claims it by the number received and the
    // addresses of the handle and the entry.
    void issue(unsigned long connection, OpenPage page);

    // Gives the state of exactly this cookie back, once: the second of two requests
    // with one cookie gets nothing.
    std::optional<OpenPage> claim(unsigned long connection, std::uint64_t received, std::uint64_t handle,
                                  std::uint64_t entry);

    // Keeps a handle until its connection closes.
    void keep(unsigned long connection, SharedHandle handle);

  private:
    // What a connection holds beside its registered handle.
    struct Held {
        std::vector<OpenPage> issued;
        std::vector<SharedHandle> kept;
    };
    using Handles = std::map<unsigned long, SharedHandle>;

    void delSearchHandle(Handles::iterator position);

    Handles m_handles;  // guarded by m_lock
    vorn::ReaderWriterLock m_lock;
    std::map<unsigned long, Held> m_held;  // guarded by m_lock
};

// The process's registry, made when the back-end registers.
extern SearchHandleManager* back_vex_search_handle;
