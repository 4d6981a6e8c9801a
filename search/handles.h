// SPDX-License-Identifier: Apache-2.0
// Open searches, and what of them outlives a request.
//
// A paged search stays open between two requests of one connection. The client
// carries a cookie that names it; everything that a cookie can name is owned
// here, by connection, so nothing is lost when a client never comes back.
//
// What clients can hold open is bounded. Beyond a bound the oldest search ends, of the
// connection that is at its own bound, else of the peer that holds most: so nobody at
// a bound disturbs another.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cache/search_cache.h"
#include "search/page_name.h"
#include "vex/vex.h"
#include "vorn/lock.h"

#include "backend/base/slapd_fwd.h"

// An entry of slapd's; its last owner frees it. One that is shared is only read.
using SharedEntry = std::shared_ptr<Entry>;

// The list that a search replays from the cache, or collects for it.
struct CacheLdapHandle {
    vexSession* session = nullptr;       // set only for a replay: an agent search has its own
    std::shared_ptr<GuidList> guidList;  // null when none is collected; shared with the list cache
                                         // when it came from there
    std::size_t cursor = 0;              // the next GUID to replay
    std::vector<std::size_t> expected;   // the places that the agent's library was told of last, in order
};

// One open search: in the agent, or as a list of GUIDs that is replayed. Ends the
// agent's search and its session when it goes.
struct LdapSearchHandle {
    LdapSearchHandle() = default;
    ~LdapSearchHandle() { end(); }
    LdapSearchHandle(const LdapSearchHandle&) = delete;
    LdapSearchHandle& operator=(const LdapSearchHandle&) = delete;

    // The session that the search runs in; null before it was opened.
    vexSession* session() const { return search != nullptr ? search->session : cache.session; }

    // Ends the agent's search and its session before that. Nobody may be using them.
    void end();

    vexSearchHandle* search = nullptr;  // null for a replay
    CacheLdapHandle cache;

    // What the first page was: pages with another key, or whose first page could
    // not be cached, leave the cache alone.
    std::string key;
    bool storable = false;
};
using SharedHandle = std::shared_ptr<LdapSearchHandle>;

// The open search and the entry that did not fit in the page before, and the cookie
// that claims them: by its name, and by how many entries the client has received.
struct OpenPage {
    SharedHandle handle;
    SharedEntry pending;
    std::uint64_t received = 0;
    PageName name;
};

// Safe for use by several threads; one instance a process. Searches end after its lock
// is released: that takes the agent.
class SearchHandleManager {
  public:
    // Bounds on what is open: of a connection, pages and kept handles apart; of the
    // process, both together.
    static constexpr std::size_t kMaxOfConnection = 64;
    static constexpr std::size_t kMaxOfProcess = 4096;

    // Registers a connection's handle. The first one stays registered.
    void setSearchHandle(unsigned long connection, const SharedHandle& handle);

    // The registered handle, or null.
    SharedHandle getSearchHandle(unsigned long connection);

    // A connection closes: releases its handle, and all that its cookies name.
    void delSearchHandle(unsigned long connection);

    // Releases everything.
    void clearAllSearchHandle();

    // Takes a page's state for a cookie. peer is the address that the connection comes
    // from.
    void issue(unsigned long connection, const std::string& peer, OpenPage page);

    // Gives the state of exactly this cookie back, once: the second of two requests
    // with one cookie gets nothing.
    std::optional<OpenPage> claim(unsigned long connection, std::uint64_t received, const PageName& name);

    // Keeps a handle until its connection closes.
    void keep(unsigned long connection, const std::string& peer, SharedHandle handle);

  private:
    // A page, or a kept handle alone; numbered in the order in which they came.
    struct Held {
        std::uint64_t number;
        OpenPage page;
    };
    using Line = std::deque<Held>;  // the oldest first

    // What a connection holds beside its registered handle.
    struct Connected {
        std::string peer;
        Line issued;
        Line kept;
    };
    using Handles = std::map<unsigned long, SharedHandle>;

    // The caller of each holds the write lock, and ends what it gets after that.
    SharedHandle takeOut(Handles::iterator position);
    OpenPage add(unsigned long connection, const std::string& peer, Line Connected::*line, OpenPage page);
    OpenPage takeOldest(Line& line);
    Line& oldestLineOf(const std::string& peer);
    std::string greediestPeer(const std::string& preferred) const;

    Handles m_handles;  // guarded by m_lock
    vorn::ReaderWriterLock m_lock;
    std::map<unsigned long, Connected> m_connected;  // guarded by m_lock
    std::size_t m_open = 0;                          // guarded by m_lock; all that m_connected holds
    std::uint64_t m_lastNumber = 0;                  // guarded by m_lock
};

// The address that a client comes from, without its port.
std::string peerOf(const Operation& op);

// The process's registry, made when the back-end registers.
extern SearchHandleManager* back_vex_search_handle;
