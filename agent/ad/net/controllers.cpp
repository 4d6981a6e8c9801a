// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/controllers.h"

#include <algorithm>
#include <utility>

namespace vexagent {

const Controllers::State* Controllers::find(const Peer& peer) const {
    const auto state = std::find_if(m_states.begin(), m_states.end(),
                                    [&](const State& entry) { return entry.controller.peer == peer; });
    return state == m_states.end() ? nullptr : &*state;
}

Controllers::State* Controllers::find(const Peer& peer) {
    return const_cast<State*>(std::as_const(*this).find(peer));
}

void Controllers::set(const std::vector<Controller>& controllers) {
    const std::lock_guard lock(m_mutex);
    std::vector<State> states;
    for (const Controller& controller : controllers) {
        const State* known = find(controller.peer);
        states.push_back(known != nullptr ? *known : State{});
        states.back().controller = controller;
    }
    m_states = std::move(states);
}

std::vector<Controllers::Choice> Controllers::order(Moment now) const {
    const std::lock_guard lock(m_mutex);
    std::vector<const State*> states;
    for (const State& state : m_states) states.push_back(&state);
    const auto isDue = [now](const State& state) { return state.failures == 0 || state.retry <= now; };
    const auto isLate = [now](const State& state) { return now < state.lateUntil; };
    std::stable_sort(states.begin(), states.end(), [&](const State* a, const State* b) {
        if (isDue(*a) != isDue(*b)) return isDue(*a);
        if (!isDue(*a)) return a->retry < b->retry;
        // One that has failed waits for a trial apart from the requests, as long as
        // another is there.
        if ((a->failures == 0) != (b->failures == 0)) return a->failures == 0;
        if (isLate(*a) != isLate(*b)) return isLate(*b);
        if (a->controller.rank != b->controller.rank) return a->controller.rank < b->controller.rank;
        return a->controller.peer == m_current && b->controller.peer != m_current;
    });
    std::vector<Choice> choices;
    choices.reserve(states.size());
    for (const State* state : states) choices.push_back({state->controller.peer, isDue(*state)});
    return choices;
}

void Controllers::succeeded(const Peer& peer) {
    const std::lock_guard lock(m_mutex);
    State* state = find(peer);
    if (state == nullptr) return;
    state->failures = 0;
    state->lateUntil = {};
    // A trial of one that is no better does not take the place of the one in use.
    const State* current = find(m_current);
    if (current != nullptr && current->failures == 0 && current->controller.rank <= state->controller.rank)
        return;
    m_current = peer;
}

bool Controllers::failed(const Peer& peer, Moment now, const std::string& reason,
                         std::optional<Moment> waitedSince) {
    const std::lock_guard lock(m_mutex);
    State* state = find(peer);
    if (state != nullptr && waitedSince && state->answered >= *waitedSince) {
        state->lateUntil = now + kLateTime;
        return false;
    }
    m_reason = reason;
    if (state == nullptr) return true;
    // Requests that fail together count once.
    if (state->failures > 0 && now < state->retry) return true;
    const milliseconds delay = std::min(kLongestDelay, kFirstDelay * (1 << std::min(state->failures, 10)));
    const auto drawn = std::chrono::duration<double, std::milli>(delay) * (0.5 + m_random());
    state->retry = now + std::chrono::duration_cast<milliseconds>(drawn);
    ++state->failures;
    return true;
}

void Controllers::answered(const Peer& peer, Moment when) {
    const std::lock_guard lock(m_mutex);
    if (State* state = find(peer)) state->answered = std::max(state->answered, when);
}

bool Controllers::hasAnsweredSince(const Peer& peer, Moment when) const {
    const std::lock_guard lock(m_mutex);
    const State* state = find(peer);
    return state != nullptr && state->answered >= when;
}

std::optional<Peer> Controllers::dueAgain(Moment now) const {
    const std::lock_guard lock(m_mutex);
    for (const State& state : m_states) {
        if (state.failures > 0 && now >= state.retry) return state.controller.peer;
    }
    return std::nullopt;
}

bool Controllers::allDown(Moment now) const {
    const std::lock_guard lock(m_mutex);
    return std::all_of(m_states.begin(), m_states.end(),
                       [now](const State& state) { return state.failures > 0 && now < state.retry; });
}

std::string Controllers::lastReason() const {
    const std::lock_guard lock(m_mutex);
    return m_reason;
}

std::size_t Controllers::size() const {
    const std::lock_guard lock(m_mutex);
    return m_states.size();
}

}  // namespace vexagent
