// SPDX-License-Identifier: Apache-2.0
// How many requests may wait for the agent at once.
//
// A request that waits for the agent holds one of slapd's threads. If all threads waited
// for an agent that hangs, slapd could answer nobody: not from the cache, not for other
// databases, not its root DSE. So only a share of the threads may wait for the agent.
//
// A request beyond the share waits for a turn, for a short time and no longer: it, too,
// holds a thread. The one that has waited longest has the next turn. One that waits in
// vain shows that there is more to do than the agent does. From then on who comes beyond
// the share is refused at once, until somebody finds a turn free.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <list>
#include <mutex>

#include "vex/vex.h"

// The result of a call to the agent that had no turn. libvex has no such code.
inline constexpr vexCode kTooManyWait = -1;

// Safe for use by several threads.
class AgentTurns {
  public:
    // patience: for so long a request waits for its turn.
    explicit AgentTurns(std::chrono::milliseconds patience) : m_patience(patience) {}

    enum class Answer {
        Taken,
        Refused,
        FirstRefused,  // the first one since a turn was free
    };

    // Takes one of limit turns.
    Answer take(std::size_t limit);
    void giveBack();

    // So many wait for theirs.
    std::size_t waiting();

  private:
    struct Waiting {
        std::condition_variable changed;
        bool hasTurn = false;
    };

    bool waitForTurn(std::unique_lock<std::mutex>& guard);

    const std::chrono::milliseconds m_patience;
    std::mutex m_mutex;
    std::size_t m_taken = 0;        // guarded by m_mutex, as is all below
    std::list<Waiting*> m_waiting;  // the one that has waited longest first
    bool m_tooMany = false;
};

// The turns of a slapd with so many threads: three quarters of them, and at least two
// stay free; but one request may always wait.
std::size_t turnsOf(int threads);

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

// Makes a call that may wait for the agent: its code, or kTooManyWait.
template <typename Call>
vexCode inTurn(Call&& call) {
    const AgentTurn turn;
    return turn ? call() : kTooManyWait;
}
