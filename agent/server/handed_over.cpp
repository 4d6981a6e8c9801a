// SPDX-License-Identifier: Apache-2.0
#include "agent/server/handed_over.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "agent/server/socket_file.h"
#include "vorn/numbers.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

// A variable's value, which is taken out of the environment; empty for none.
std::string take(const char* name) {
    const char* value = std::getenv(name);
    std::string taken = value != nullptr ? value : "";
    ::unsetenv(name);
    return taken;
}

}  // namespace

std::optional<vorn::Descriptor> takeHandedOver(int first) {
    const std::string process = take("LISTEN_PID");
    const std::string count = take("LISTEN_FDS");
    take("LISTEN_FDNAMES");
    // Another process's, which has left them to those that it started.
    if (vorn::parseNumber<pid_t>(process) != ::getpid()) return std::nullopt;
    if (count != "1")
        throw SocketError("LISTEN_FDS=" + vorn::printable(count) +
                          ": the service manager must hand over one socket, the agent's");
    if (::fcntl(first, F_SETFD, FD_CLOEXEC) != 0)
        throw SocketError("LISTEN_FDS=1: descriptor " + std::to_string(first) + ": " + std::strerror(errno));
    return vorn::Descriptor(first);
}

}  // namespace vexagent
