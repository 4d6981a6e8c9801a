// SPDX-License-Identifier: Apache-2.0
// What the agent's process asks of the system for itself.
#pragma once

namespace vexagent {

// Nobody reads passwords out of this process but root: not from a core, which is not
// written, and not through /proc or a debugger. The sanitizers' runtimes want both.
void closeMemory();

// As many descriptors as it may have: every client is one.
void raiseDescriptorLimit();

}  // namespace vexagent
