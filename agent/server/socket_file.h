// SPDX-License-Identifier: Apache-2.0
// The agent's Unix socket in the file system.
#pragma once

#include <sys/types.h>
#include <sys/un.h>

#include <optional>
#include <stdexcept>
#include <string>

#include "agent/server/folder_lock.h"
#include "vorn/descriptor.h"

namespace vexagent {

// A socket that cannot be made; what() is one line.
class SocketError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// What fits into a socket's address, which ends with a NUL.
inline constexpr std::size_t kLongestSocketPath = sizeof sockaddr_un::sun_path - 1;

struct SocketOptions {
    std::string path;  // at most kLongestSocketPath bytes
    unsigned mode = 0660;
    std::optional<gid_t> group{};  // the process's own when there is none
};

// A listening socket at a path, from construction to remove or destruction.
//
// One that the agent makes itself appears at its path in one step, listening, with
// its mode and group: there is no moment at which somebody else could connect, or
// nobody could. A socket that nobody listens on is replaced; one that answers is
// another agent's, and construction fails, as it does when anything else is at the
// path. Of several agents that start at the same instant one gets the path: its
// folder is locked from the look at the path until the socket is there.
class SocketFile {
  public:
    // Makes it. Throws SocketError, or LockError.
    explicit SocketFile(const SocketOptions& options);

    // Takes over one that listens at the path already, and gives it its owner, group and
    // mode. Whoever made it keeps it: remove leaves it there, and clients that come while
    // no agent runs wait in it. Throws SocketError, also for what is no such socket.
    SocketFile(const SocketOptions& options, vorn::Descriptor handedOver);
    ~SocketFile();
    SocketFile(const SocketFile&) = delete;
    SocketFile& operator=(const SocketFile&) = delete;

    // The listening descriptor, which becomes the caller's.
    int release();

    // Removes the socket from its path, unless another one is there by now or it was
    // handed over.
    void remove();

  private:
    void create(const SocketOptions& options, const FolderLock& folder);

    const std::string m_path;
    vorn::Descriptor m_descriptor{-1};
    dev_t m_device = 0;
    ino_t m_inode = 0;  // what is removed; 0 for nothing
};

}  // namespace vexagent
