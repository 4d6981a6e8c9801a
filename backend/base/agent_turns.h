// SPDX-License-Identifier: Apache-2.0
// How many requests may wait for the agent at once.
//
// A request that waits for the agent holds one of slapd's threads. If all threads waited
// for an agent that hangs, slapd could answer nobody: not from the cache, not for other
// databases, not its root DSE. So only a share of the threads may wait. A request beyond
// this share is refused at once while the agent answers nobody. While the agent answers,
// turns become free all the time. Then a request waits for its turn.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "vex/vex.h"

// The result of a call to the agent that had no turn. libvex has no such code.
inline constexpr vexCode kTooManyWait = -1;

// Safe for use by several threads.
class AgentTurns {
  public:
    // patience: an agent that has given no turn back for so long answers nobody.
    explicit AgentTurns(std::chrono::milliseconds patience) : m_patience(patience) {}

    enum class Answer {
        Taken,
        Refused,
        FirstRefused,  // the first time since a turn came back
    };

    // Takes one of limit turns.
    Answer take(std::size_t limit);
    void giveBack();

  private:
    bool waitForTurn(std::unique_lock<std::mutex>& guard, std::size_t limit);

    const std::chrono::milliseconds m_patience;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::size_t m_taken = 0;        // guarded by m_mutex
    std::uint64_t m_givenBack = 0;  // guarded by m_mutex
    bool m_answersNobody = false;   // guarded by m_mutex
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
