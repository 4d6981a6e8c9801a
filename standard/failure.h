// SPDX-License-Identifier: Apache-2.0
// Telling a client that something failed, and what the log calls the request.
#pragma once

#include <exception>

#include "search/reply_policy.h"

#include "backend/base/slapd_fwd.h"

namespace standard {

// Why the agent failed, and the request's name: "conn=1000 op=1", as in slapd's own log.
void sendAgentFailure(Operation* op, SlapReply* rs, const Failure& failure);

// A mistake of ours: what it is goes to the log alone. Returns the result.
int sendInternalError(Operation* op, SlapReply* rs, const std::exception& error);

}  // namespace standard
