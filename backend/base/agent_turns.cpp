// SPDX-License-Identifier: Apache-2.0
#include "backend/base/agent_turns.h"

#include <algorithm>

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
    const bool knownToHang = m_answersNobody;
    if (m_taken >= limit && !waitForTurn(guard, limit))
        return knownToHang || !m_answersNobody ? Answer::Refused : Answer::FirstRefused;
    ++m_taken;
    return Answer::Taken;
}

// Goes on as long as turns come back: others may have been quicker to take them.
bool AgentTurns::waitForTurn(std::unique_lock<std::mutex>& guard, std::size_t limit) {
    while (!m_answersNobody) {
        const std::uint64_t before = m_givenBack;
        m_changed.wait_for(guard, m_patience, [&] { return m_taken < limit || m_answersNobody; });
        if (m_taken < limit) return true;
        if (m_answersNobody) return false;
        if (m_givenBack == before) {
            m_answersNobody = true;
            m_changed.notify_all();
            return false;
        }
    }
    return false;
}

void AgentTurns::giveBack() {
    {
        const std::lock_guard guard(m_mutex);
        --m_taken;
        ++m_givenBack;
        m_answersNobody = false;
    }
    m_changed.notify_one();
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
