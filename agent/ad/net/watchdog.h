// SPDX-License-Identifier: Apache-2.0
// Ends library calls that overstay.
//
// libldap's TLS handshake and its reads in the middle of a message wait for the
// peer without any bound that holds, and the handshake may spin. What ends them
// for certain is the socket: once it is shut down every read and write on it
// fails. So a call that must end is watched, and at its deadline the watchdog's
// thread shuts the socket down.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <thread>

#include "vorn/clock.h"
#include "vorn/deadline.h"

namespace vexagent {

// Which sockets are watched until when. Knows no clock and no thread.
class WatchList {
  public:
    using Key = std::pair<vorn::Moment, std::uint64_t>;

    Key add(int socket, vorn::Moment end);
    void remove(const Key& key) { m_sockets.erase(key); }

    // One whose end has come; it is not watched any more.
    std::optional<int> takeOverdue(vorn::Moment now);
    // When the next one's end comes; the far end of time where none is watched.
    vorn::Moment next() const;

  private:
    std::map<Key, int> m_sockets;
    std::uint64_t m_count = 0;
};

// Safe for several threads.
class Watchdog {
  public:
    // The clock outlives it.
    explicit Watchdog(const vorn::SteadyClock& clock);
    // No watch is left.
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    // Watches one call on a socket from its making to its end. The socket stays
    // open at least as long.
    class Watch {
      public:
        Watch(Watchdog& dog, int socket, vorn::Moment end) : m_dog(dog), m_key(dog.add(socket, end)) {}
        Watch(Watchdog& dog, int socket, const vorn::Deadline& deadline)
            : Watch(dog, socket, deadline.end()) {}
        ~Watch() { m_dog.remove(m_key); }
        Watch(const Watch&) = delete;
        Watch& operator=(const Watch&) = delete;

      private:
        Watchdog& m_dog;
        const WatchList::Key m_key;
    };

  private:
    WatchList::Key add(int socket, vorn::Moment end);
    void remove(const WatchList::Key& key);
    void run();

    const vorn::SteadyClock& m_clock;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    WatchList m_watched;  // guarded by m_mutex, as all below
    vorn::Moment m_wakesAt =
        vorn::Moment::max();  // the thread sleeps until then, past watches that have ended
    bool m_stopping = false;
    std::thread m_thread;
};

}  // namespace vexagent
