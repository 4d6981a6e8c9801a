// SPDX-License-Identifier: Apache-2.0
// What a bind does, with its clocks passed in.
#pragma once

#include "auth/credentials.h"
#include "auth/statistics.h"

#include "backend/base/slapd_fwd.h"

// Answers binds from back_vex_creds, or asks the agent in a session of its own.
// Safe for use by several threads.
class Binder {
  public:
    Binder(BindStatistics& statistics, MicrosecondClock clock) : m_statistics(statistics), m_clock(clock) {}

    // As vex_back_bind.
    int bind(Operation* op, SlapReply* rs);

  private:
    bool answeredFromCache(const Operation* op);
    int askAgent(Operation* op, SlapReply* rs);

    BindStatistics& m_statistics;
    const MicrosecondClock m_clock;
};
