// SPDX-License-Identifier: Apache-2.0
// The connections to one domain's controllers that are not in use, and how many are.
#pragma once

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "agent/ad/net/context.h"

namespace vexagent {

// Safe for several threads. Outlives its leases and turns.
class LinkPool {
  public:
    explicit LinkPool(const NetContext& context) : m_context(context) {}

    // A connection for one thread, given back when the lease ends.
    class Lease {
      public:
        Lease(LinkPool& pool, std::unique_ptr<Link> link) : m_pool(&pool), m_link(std::move(link)) {}
        Lease(Lease&& other) noexcept
            : m_pool(other.m_pool),
              m_link(std::move(other.m_link)),
              m_long(other.m_long),
              m_reusable(other.m_reusable) {}
        Lease& operator=(Lease&&) = delete;
        ~Lease() {
            if (m_link) m_pool->giveBack(std::move(m_link), m_long, m_reusable);
        }
        // Whether there still is one: it may have been moved.
        explicit operator bool() const { return m_link != nullptr; }
        Link* operator->() const { return m_link.get(); }
        Link& operator*() const { return *m_link; }

        // The connection is not used by anybody else, because an answer is under way.
        void spoil() { m_reusable = false; }

        // Lasts longer than one request. False when there are too many of that kind.
        [[nodiscard]] bool keep();

      private:
        LinkPool* m_pool;
        std::unique_ptr<Link> m_link;
        bool m_long = false;
        bool m_reusable = true;
    };

    // Leave for one request, until it ends.
    class Turn {
      public:
        explicit Turn(LinkPool& pool) : m_pool(&pool) {}
        Turn(Turn&& other) noexcept : m_pool(std::exchange(other.m_pool, nullptr)) {}
        Turn& operator=(Turn&&) = delete;
        ~Turn() {
            if (m_pool != nullptr) m_pool->endTurn();
        }

      private:
        LinkPool* m_pool;
    };
    // Nothing when as many requests as there may be have run until the deadline.
    [[nodiscard]] std::optional<Turn> takeTurn(const Deadline& deadline);

    // An idle connection to the controller; null when there is none. One that nobody has
    // used for a while is tried first.
    std::unique_ptr<Link> take(const Peer& peer, const Deadline& deadline);

    // Closes those to a controller, or those that nobody uses.
    void drop(const Peer& peer);
    void dropOld();

    // How many leases may be kept at a time.
    std::size_t mostLong() const { return m_context.options.connections * kLongPerConnection; }

    static constexpr milliseconds kTrustTime{20'000};  // for which an idle connection is taken as it is
    static constexpr milliseconds kIdleTime{300'000};  // after which one is closed

  private:
    static constexpr std::size_t kLongPerConnection = 4;

    struct Idle {
        std::unique_ptr<Link> link;
        Moment since;
    };
    std::optional<Idle> takeYoungest(const Peer& peer);
    void giveBack(std::unique_ptr<Link> link, bool wasLong, bool reusable);
    void endTurn();

    const NetContext& m_context;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::map<Peer, std::vector<Idle>> m_idle;  // guarded by m_mutex, as all below
    std::size_t m_running = 0;                 // turns
    std::size_t m_long = 0;                    // leases that outlive theirs
};

}  // namespace vexagent
