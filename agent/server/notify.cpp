// SPDX-License-Identifier: Apache-2.0
#include "agent/server/notify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>

namespace vexagent {

bool notifyManager(const std::string& state) {
    const char* place = std::getenv("NOTIFY_SOCKET");
    if (place == nullptr) return false;
    const std::string path = place;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path || (path[0] != '/' && path[0] != '@')) return false;
    path.copy(address.sun_path, path.size());
    if (path[0] == '@') address.sun_path[0] = '\0';  // an abstract name counts by its length
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    const int descriptor = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) return false;
    const ssize_t sent = ::sendto(descriptor, state.data(), state.size(), MSG_NOSIGNAL,
                                  reinterpret_cast<const sockaddr*>(&address), length);
    ::close(descriptor);
    return sent == static_cast<ssize_t>(state.size());
}

}  // namespace vexagent
