// SPDX-License-Identifier: Apache-2.0
#include "backend/base/agent_turns.h"

#include <algorithm>
#include <utility>

#include "backend/base/failure.h"
#include "backend/base/log.h"

#include "backend/base/slapd.h"

namespace {

constexpr std::chrono::milliseconds kPatience{250};

AgentTurns& turns() {
    static AgentTurns& theOnes = *new AgentTurns(kPatience);
    return theOnes;
}

}  // namespace

AgentTurns::Answer AgentTurns::take(std::size_t limit) {
    std::unique_lock guard(m_mutex);
    if (m_taken < limit) {
        ++m_taken;
        m_tooMany = false;
        return Answer::Taken;
    }
    if (m_tooMany) return Answer::Refused;
    if (waitForTurn(guard)) return Answer::Taken;
    return std::exchange(m_tooMany, true) ? Answer::Refused : Answer::FirstRefused;
}

// Who comes while others wait finds no turn free, since each that comes back is handed on.
bool AgentTurns::waitForTurn(std::unique_lock<std::mutex>& guard) {
    Waiting self;
    const auto place = m_waiting.insert(m_waiting.end(), &self);
    self.changed.wait_for(guard, m_patience, [&] { return self.hasTurn; });
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

std::size_t turnsOf(int threads) {
    return static_cast<std::size_t>(std::max(1, std::min(threads * 3 / 4, threads - 2)));
}

AgentTurn::AgentTurn() {
    const AgentTurns::Answer answer = turns().take(turnsOf(connection_pool_max));
    m_taken = answer == AgentTurns::Answer::Taken;
    // Once, and not for each of those who are turned away.
    if (answer == AgentTurns::Answer::FirstRefused) JError("%s", kTooManyWaitText);
}

AgentTurn::~AgentTurn() {
    if (m_taken) turns().giveBack();
}
