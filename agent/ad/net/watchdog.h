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
#include <thread>

#include "agent/ad/net/deadline.h"

namespace vexagent {

// Safe for several threads.
class Watchdog {
  public:
    Watchdog();
    // No watch is left.
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    // Watches one call on a socket from its making to its end. The socket stays
    // open at least as long.
    class Watch {
      public:
        Watch(Watchdog& dog, int socket, const Deadline& deadline)
            : m_dog(dog), m_key(dog.add(socket, deadline)) {}
        ~Watch() { m_dog.remove(m_key); }
        Watch(const Watch&) = delete;
        Watch& operator=(const Watch&) = delete;

      private:
        Watchdog& m_dog;
        const std::pair<Moment, std::uint64_t> m_key;
    };

  private:
    using Key = std::pair<Moment, std::uint64_t>;

    Key add(int socket, const Deadline& deadline);
    void remove(const Key& key);
    void run();

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::map<Key, int> m_sockets;  // guarded by m_mutex, as all below
    std::uint64_t m_next = 0;
    Moment m_wakesAt = Moment::max();  // the thread sleeps until then, past watches that have ended
    bool m_stopping = false;
    std::thread m_thread;
};

}  // namespace vexagent
