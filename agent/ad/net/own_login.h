// SPDX-License-Identifier: Apache-2.0
// Whether the agent may show its own password, or its key, to a controller now.
//
// A domain counts what it refuses, and locks the account in the end; every host that
// uses it is then out of service. So what was refused is shown to one more controller,
// since one may not know the newest password yet, and after that more and more rarely.
// Another password or key in the file is tried at once.
//
// Knows no network and no clock: it is told what happened and when. Safe for several
// threads.
#pragma once

#include <map>
#include <mutex>
#include <string>

#include "agent/ad/net/peer.h"
#include "vorn/deadline.h"

namespace vexagent {

using std::chrono::milliseconds;
using vorn::Deadline;
using vorn::Moment;

class OwnLogin {
  public:
    // What the password or the key is by now, in any text that changes with it: when it
    // does, nothing has been refused yet.
    void use(const std::string& what);

    // Whether this controller may be asked.
    [[nodiscard]] bool mayTry(const Peer& peer, Moment now) const;

    // What came of it. True when it is to be told to the log: at the first refusal, and
    // at the end of all.
    bool refused(const Peer& peer, Moment now);
    bool accepted(const Peer& peer, Moment now);

    // Held by whoever tries while nobody was let in a short while ago, so that what is
    // wrong is not shown by many at once. Is waited for until the deadline only: one that
    // hangs does not keep the others.
    [[nodiscard]] std::unique_lock<std::timed_mutex> takeTurn(const Deadline& deadline);

    static constexpr milliseconds kFirstDelay{5000};
    static constexpr milliseconds kLongestDelay{900'000};
    static constexpr int kControllers = 2;  // are asked one after the other
    static constexpr milliseconds kTrustTime{10'000};

  private:
    // Refusals, and until when nothing is tried again.
    struct Wait {
        int refusals = 0;
        Moment until{};
        void add(Moment now);
    };

    mutable std::mutex m_mutex;
    std::string m_what;            // guarded by m_mutex, as all below
    std::map<Peer, Wait> m_peers;  // that have refused it
    Wait m_all;                    // once as many have as are asked
    int m_inARow = 0;              // refusals since it was accepted
    bool m_told = false;
    Moment m_acceptedAt{};

    std::timed_mutex m_turn;
};

// A text that changes when the file's content may have; the same for one that is not there.
std::string stampOf(const std::string& file);

}  // namespace vexagent
