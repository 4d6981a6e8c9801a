// SPDX-License-Identifier: Apache-2.0
// How many requests may wait for the agent at once.
//
// A request that waits for the agent holds one of slapd's threads. If all threads waited
// for an agent that hangs, slapd could answer nobody: not from the cache, not for other
// databases, not its root DSE. So only a share of the threads may wait for the agent.
//
// A request beyond the share waits for a turn, and not for long: it, too, holds a thread.
// The one that has waited longest has the next turn.
//
// slapd needs a free thread for each connection that it accepts, one after the other. So
// while a request waits in one of the last threads, everybody in the line of new
// connections waits as long, by turns. There a request waits only as long as an agent
// needs that has much to do and does it. One that waits in vain shows that there is more
// to do than the agent does. From then on nobody waits in the last threads: who would is
// refused at once, until a turn is free again or comes soon.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <list>
#include <mutex>

#include "vex/vex.h"

// The result of a call to the agent that had no turn. libvex has no such code.
inline constexpr vexCode kTooManyWait = -1;

// What requests may have of slapd's threads.
struct ThreadShare {
    std::size_t turns;    // so many may be at the agent
    std::size_t patient;  // so many more may be patient. Whoever else waits holds one of the last threads
};

// Three quarters of the threads may be at the agent, and at least two are left out
// altogether; but one request may always be there. Threads that send hold as long as
// clients please: they leave less to share.
ThreadShare shareOf(int threads, int sending);

// Safe for use by several threads.
class AgentTurns {
  public:
    // For so long a request waits for its turn; and for so long in one of the last threads.
    AgentTurns(std::chrono::milliseconds patience, std::chrono::milliseconds shortPatience)
        : m_patience(patience), m_shortPatience(shortPatience) {}

    enum class Answer {
        Taken,
        Refused,
        FirstRefused,  // the first one since turns were to be had
    };

    // Takes one of the share's turns.
    Answer take(ThreadShare share);
    void giveBack();

    // So many wait for theirs.
    std::size_t waiting();

  private:
    struct Waiting {
        std::condition_variable changed;
        bool hasTurn = false;
    };

    bool waitForTurn(std::unique_lock<std::mutex>& guard, std::chrono::milliseconds patience);

    const std::chrono::milliseconds m_patience;
    const std::chrono::milliseconds m_shortPatience;
    std::mutex m_mutex;
    std::size_t m_taken = 0;        // guarded by m_mutex, as is all below
    std::list<Waiting*> m_waiting;  // the one that has waited longest first
    bool m_tooMany = false;
};

// The process's turn for the time of one call; without one the call is not made.
class AgentTurn {
  public:
    AgentTurn();
    ~AgentTurn();
    AgentTurn(const AgentTurn&) = delete;
    AgentTurn& operator=(const AgentTurn&) = delete;

    explicit operator bool() const { return m_taken; }

  private:
    bool m_taken;
};

// For the time that a thread sends to a client, who may read slowly, or not at all.
class Sending {
  public:
    Sending();
    ~Sending();
    Sending(const Sending&) = delete;
    Sending& operator=(const Sending&) = delete;
};

// Makes a call that may wait for the agent: its code, or kTooManyWait.
template <typename Call>
vexCode inTurn(Call&& call) {
    const AgentTurn turn;
    return turn ? call() : kTooManyWait;
}
