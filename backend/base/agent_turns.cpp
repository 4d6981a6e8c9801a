// SPDX-License-Identifier: Apache-2.0
#include "backend/base/agent_turns.h"

#include <algorithm>
#include <atomic>
#include <utility>

#include "backend/base/failure.h"
#include "backend/base/log.h"

#include "backend/base/slapd.h"

namespace {

constexpr std::chrono::milliseconds kPatience{1000};
constexpr std::chrono::milliseconds kShortPatience{100};
constexpr int kSoon = 8;  // this part of the short patience
constexpr int kFree = 2;

AgentTurns& turns() {
    static AgentTurns& theOnes = *new AgentTurns(kPatience, kShortPatience);
    return theOnes;
}

std::atomic<int>& sending() {
    static std::atomic<int>& theOne = *new std::atomic<int>(0);
    return theOne;
}

}  // namespace

AgentTurns::Answer AgentTurns::take(ThreadShare share) {
    std::unique_lock guard(m_mutex);
    if (m_taken < share.turns) {
        ++m_taken;
        m_tooMany = false;
        return Answer::Taken;
    }
    const bool isPatient = m_waiting.size() < share.patient;
    if (m_tooMany && !isPatient) return Answer::Refused;
    const auto start = std::chrono::steady_clock::now();
    if (!waitForTurn(guard, isPatient ? m_patience : m_shortPatience))
        return std::exchange(m_tooMany, true) ? Answer::Refused : Answer::FirstRefused;
    if (std::chrono::steady_clock::now() - start < m_shortPatience / kSoon) m_tooMany = false;
    return Answer::Taken;
}

// Who comes while others wait finds no turn free, since each that comes back is handed on.
bool AgentTurns::waitForTurn(std::unique_lock<std::mutex>& guard, std::chrono::milliseconds patience) {
    Waiting self;
    const auto place = m_waiting.insert(m_waiting.end(), &self);
    self.changed.wait_for(guard, patience, [&] { return self.hasTurn; });
    if (!self.hasTurn) m_waiting.erase(place);
    return self.hasTurn;
}

void AgentTurns::giveBack() {
    const std::lock_guard guard(m_mutex);
    if (m_waiting.empty()) {
        --m_taken;
        return;
    }
    Waiting& next = *m_waiting.front();
    m_waiting.pop_front();
    next.hasTurn = true;
    next.changed.notify_one();  // under the lock: without it the one that waits could be gone
}

std::size_t AgentTurns::waiting() {
    const std::lock_guard guard(m_mutex);
    return m_waiting.size();
}

ThreadShare shareOf(int threads, int sending) {
    const int turns = std::max(1, std::min(threads * 3 / 4, threads - kFree - sending));
    const int patient = std::max(0, threads - kFree - sending - turns);
    return {static_cast<std::size_t>(turns), static_cast<std::size_t>(patient)};
}

AgentTurn::AgentTurn() {
    const AgentTurns::Answer answer = turns().take(shareOf(connection_pool_max, sending()));
    m_taken = answer == AgentTurns::Answer::Taken;
    // Once, and not for each of those who are turned away.
    if (answer == AgentTurns::Answer::FirstRefused) JError("%s", kTooManyWaitText);
}

AgentTurn::~AgentTurn() {
    if (m_taken) turns().giveBack();
}

Sending::Sending() {
    ++sending();
}

Sending::~Sending() {
    --sending();
}
