// The agent's Unix socket in the file system.
#pragma once

#include <sys/types.h>
#include <sys/un.h>

#include <optional>
#include <stdexcept>
#include <string>

#include "agent/server/folder_lock.h"

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
// It appears at its path in one step, listening, with its mode and group: there
// is no moment at which somebody else could connect, or nobody could. A socket
// that nobody listens on is replaced; one that answers is another agent's, and
// construction fails, as it does when anything else is at the path. Of several
// agents that start at the same instant one gets the path: its folder is locked
// from the look at the path until the socket is there.
class SocketFile {
  public:
    // Throws SocketError, or LockError.
    explicit SocketFile(const SocketOptions& options);
    ~SocketFile();
    SocketFile(const SocketFile&) = delete;
    SocketFile& operator=(const SocketFile&) = delete;

    // The listening descriptor, which becomes the caller's.
    int release();

    // Removes the socket from its path, unless another one is there by now.
    void remove();

  private:
    void create(const SocketOptions& options, const FolderLock& folder);

    const std::string m_path;
    int m_descriptor = -1;
    dev_t m_device = 0;
    ino_t m_inode = 0;
};

}  // namespace vexagent
