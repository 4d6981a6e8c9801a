// The agent's Unix socket in the file system.
#pragma once

#include <sys/types.h>

#include <stdexcept>
#include <string>

namespace vexagent {

// A socket that cannot be made; what() is one line.
class SocketError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

struct SocketOptions {
    std::string path;
    unsigned mode = 0660;
    std::string group;  // empty: the process's own
};

// A listening socket at a path, from construction to remove or destruction.
//
// It appears at its path in one step, listening, with its mode and group: there
// is no moment at which somebody else could connect, or nobody could. A socket
// that nobody listens on is replaced; one that answers is another agent's, and
// construction fails, as it does when anything else is at the path.
class SocketFile {
  public:
    // Throws SocketError.
    explicit SocketFile(const SocketOptions& options);
    ~SocketFile();
    SocketFile(const SocketFile&) = delete;
    SocketFile& operator=(const SocketFile&) = delete;

    // The listening descriptor, which becomes the caller's.
    int release();

    // Removes the socket from its path, unless another one is there by now.
    void remove();

  private:
    void create(const SocketOptions& options, const std::string& path);

    const std::string m_path;
    int m_descriptor = -1;
    dev_t m_device = 0;
    ino_t m_inode = 0;
};

}  // namespace vexagent
