// SPDX-License-Identifier: Apache-2.0
// Which domain controller to ask.
//
// Controllers stand in classes: those of the agent's site before others, and by
// the priority of their DNS records. Within a class the one in use stays in use
// until it fails; after that the others take over, and the failed one is tried
// again after a delay that grows with every further failure and is drawn at
// random around its middle, so that many agents do not come back at once. When a
// controller of a better class answers again, it is used again.
//
// The class knows no network and no clock: it is told what happened and when. Safe
// for several threads.
#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "agent/ad/net/peer.h"
#include "vorn/clock.h"
#include "vorn/deadline.h"

namespace vexagent {

using std::chrono::milliseconds;
using vorn::Moment;

// How long one controller gets to take a connection while there are others, and at most
// which part of the time that is left.
inline constexpr milliseconds kPatience{2000};
inline constexpr int kPatienceShare = 2;
inline vorn::Deadline withPatience(const vorn::Deadline& deadline) {
    return deadline.atMost(deadline.share(kPatience, kPatienceShare));
}

struct Controller {
    Peer peer;
    int rank = 0;  // its class; lower is better
};

class Controllers {
  public:
    // A number from 0 up to, not including, 1.
    using Random = std::function<double()>;

    explicit Controllers(Random random) : m_random(std::move(random)) {}

    // The controllers that there are, in the order of preference. What is known
    // about one that was there before stays known.
    void set(const std::vector<Controller>& controllers);

    struct Choice {
        Peer peer;
        bool due = true;  // false: it failed a short while ago
    };
    // All controllers in the order in which to try them now: those that are due
    // before the others, and among these the one that will be due first.
    std::vector<Choice> order(Moment now) const;

    // What came of asking one.
    void succeeded(const Peer& peer);
    // waitedSince is set where it was only waited for in vain, by a request that began
    // then. That is no failure of one that has answered anybody since: false, and for a
    // while others like it are asked before it.
    bool failed(const Peer& peer, Moment now, const std::string& reason,
                std::optional<Moment> waitedSince = std::nullopt);

    // One has answered, whatever it said.
    void answered(const Peer& peer, Moment when);
    bool hasAnsweredSince(const Peer& peer, Moment when) const;

    // One that has failed and is due again.
    std::optional<Peer> dueAgain(Moment now) const;

    // Whether none is due: there is no point in waiting for one.
    bool allDown(Moment now) const;

    // The last failure's reason; empty when none is known.
    std::string lastReason() const;

    std::size_t size() const;

    static constexpr milliseconds kFirstDelay{1000};
    static constexpr milliseconds kLongestDelay{120'000};
    static constexpr milliseconds kLateTime{60'000};  // for which one that was late comes after others

  private:
    struct State {
        Controller controller;
        int failures = 0;    // in a row
        Moment retry{};      // when it is due again
        Moment answered{};   // last
        Moment lateUntil{};  // until when others come first
    };
    const State* find(const Peer& peer) const;
    State* find(const Peer& peer);

    const Random m_random;
    mutable std::mutex m_mutex;
    std::vector<State> m_states;  // guarded by m_mutex, as all below
    Peer m_current;               // the one that answered last
    std::string m_reason;
};

}  // namespace vexagent
