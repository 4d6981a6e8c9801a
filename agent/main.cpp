// SPDX-License-Identifier: Apache-2.0
// vexagent: the directory agent of this host.

#include "agent/agent.h"
#include "agent/command_line.h"
#include "agent/process.h"

int main(int count, char** words) {
    vexagent::closeMemory();
    return vexagent::start(vexagent::parseOptions(count, words));
}
