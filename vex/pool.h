// SPDX-License-Identifier: Apache-2.0
// The connections that this process keeps between its requests.
//
// A request takes one, or opens one when none is kept, and gives it back when
// it is in order. So a process has as many connections as it ever made requests
// at once, and no session owns one.
#pragma once

#include <memory>
#include <vector>

#include "vex/connection.h"

namespace vex {

class Pool {
  public:
    // More than these are not kept.
    static constexpr std::size_t kMaxIdle = 32;

    // The one of this process; never destroyed.
    static Pool& process();

    // A kept connection to this place, found to be alive; null when there is none.
    std::unique_ptr<Connection> take(const std::string& path);

    // Keeps a connection on which no answer is outstanding.
    void give(std::unique_ptr<Connection> connection);

  private:
    Pool() { m_idle.reserve(kMaxIdle); }

    std::unique_ptr<Connection> pop();
    void keep(std::unique_ptr<Connection>& connection);

    std::vector<std::unique_ptr<Connection>> m_idle;  // guarded by forkLock(); the last one is the warmest
};

}  // namespace vex
