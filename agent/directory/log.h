// SPDX-License-Identifier: Apache-2.0
// The agent's log channel.
#pragma once

#include "vorn/logger.h"

// Writes one record. Costs nothing when nobody listens: the arguments are
// evaluated only for a record that goes somewhere.
#define AGENT_LOG(level, ...)                                                        \
    do {                                                                             \
        const auto agentLogger = vorn::Logger::GetThreadPrivateLogger("vexagent");   \
        if (agentLogger && agentLogger->admits(level))                               \
            agentLogger->log(level, __FILE_NAME__, __LINE__, __func__, __VA_ARGS__); \
    } while (false)
