#include "agent/server/socket_file.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace vexagent {
namespace {

[[noreturn]] void fail(const std::string& path, const std::string& why) {
    throw SocketError(path + ": " + why);
}

[[noreturn]] void failSystem(const std::string& path) {
    fail(path, std::strerror(errno));
}

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    return address;
}

int newSocket(const std::string& path) {
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (descriptor < 0) failSystem(path);
    return descriptor;
}

// Whether somebody listens at the path. A full queue means that somebody does.
bool isAnswered(const std::string& path) {
    const sockaddr_un address = addressOf(path);
    const int descriptor = newSocket(path);
    const int answer = ::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const int reason = answer == 0 ? 0 : errno;
    ::close(descriptor);
    if (reason == ECONNREFUSED || reason == ENOENT) return false;
    if (reason != 0 && reason != EAGAIN) fail(path, std::strerror(reason));
    return true;
}

void checkPlace(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        if (errno == ENOENT) return;
        failSystem(path);
    }
    if (!S_ISSOCK(status.st_mode)) fail(path, "exists and is not a socket");
    if (isAnswered(path)) fail(path, "another agent answers on it");
}

// The socket's name until it is ready. Reached through the folder's descriptor, so
// that it fits wherever the socket's own path does.
constexpr char kUnready[] = ".vexagent.new";

std::string throughDescriptor(const FolderLock& folder) {
    return "/proc/self/fd/" + std::to_string(folder.descriptor()) + "/" + kUnready;
}

}  // namespace

SocketFile::SocketFile(const SocketOptions& options) : m_path(options.path) {
    if (m_path.empty() || m_path.size() > kLongestSocketPath)
        fail(m_path, "is not a possible path of a socket");
    const FolderLock folder(m_path);
    checkPlace(m_path);
    // Made under another name and moved, mode and group set, so that the path
    // never shows a socket that is not ready.
    try {
        create(options, folder);
        if (::renameat(folder.descriptor(), kUnready, AT_FDCWD, m_path.c_str()) != 0) failSystem(m_path);
    } catch (...) {
        if (m_descriptor >= 0) ::close(m_descriptor);
        ::unlinkat(folder.descriptor(), kUnready, 0);
        throw;
    }
}

void SocketFile::create(const SocketOptions& options, const FolderLock& folder) {
    const int at = folder.descriptor();
    const sockaddr_un address = addressOf(throughDescriptor(folder));
    m_descriptor = newSocket(m_path);
    ::unlinkat(at, kUnready, 0);  // of an agent that was killed
    // The mode counts from the first moment: nobody but the owner may connect.
    const mode_t before = ::umask(0177);
    const int bound = ::bind(m_descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const int reason = errno;
    ::umask(before);
    errno = reason;
    if (bound != 0) failSystem(m_path);
    if (options.group &&
        ::fchownat(at, kUnready, static_cast<uid_t>(-1), *options.group, AT_SYMLINK_NOFOLLOW) != 0)
        failSystem(m_path);
    if (::fchmodat(at, kUnready, options.mode, 0) != 0) failSystem(m_path);
    if (::listen(m_descriptor, SOMAXCONN) != 0) failSystem(m_path);
    struct stat status {};
    if (::fstatat(at, kUnready, &status, AT_SYMLINK_NOFOLLOW) != 0) failSystem(m_path);
    m_device = status.st_dev;
    m_inode = status.st_ino;
}

SocketFile::~SocketFile() {
    remove();
    if (m_descriptor >= 0) ::close(m_descriptor);
}

int SocketFile::release() {
    const int descriptor = m_descriptor;
    m_descriptor = -1;
    return descriptor;
}

void SocketFile::remove() {
    struct stat status {};
    if (::lstat(m_path.c_str(), &status) != 0) return;
    if (status.st_dev == m_device && status.st_ino == m_inode) ::unlink(m_path.c_str());
}

}  // namespace vexagent
