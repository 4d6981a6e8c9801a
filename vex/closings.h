// SPDX-License-Identifier: Apache-2.0
// Searches that are over, but the agent does not know it yet: telling it would have meant
// waiting.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <vector>

#include "vorn/guarded.h"

namespace vex {

// Safe for use by several threads.
class Closings {
  public:
    // More than these are forgotten. The agent itself ends a search that nobody asks for.
    static constexpr std::size_t kMost = 20'000;

    // Those of this process; never destroyed.
    static Closings& process();

    void add(pid_t agent, std::uint64_t search);

    // Takes out all that this agent is to be told. What others were to be told is
    // forgotten: they are gone, or the searches are a parent process's.
    std::vector<std::uint64_t> take(pid_t agent);

  private:
    struct Closing {
        pid_t agent;
        unsigned generation;
        std::uint64_t search;
    };

    std::atomic<bool> m_any{false};  // changed while m_closings is held
    vorn::Guarded<std::vector<Closing>> m_closings;
};

}  // namespace vex
