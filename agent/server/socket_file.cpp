// SPDX-License-Identifier: Apache-2.0
#include "agent/server/socket_file.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <utility>

#include "vorn/strings.h"

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

vorn::Descriptor newSocket(const std::string& path) {
    vorn::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (socket.get() < 0) failSystem(path);
    return socket;
}

// Whether somebody listens at the path. A full queue means that somebody does.
bool isAnswered(const std::string& path) {
    const sockaddr_un address = addressOf(path);
    const vorn::Descriptor socket = newSocket(path);
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
        return true;
    if (errno == ECONNREFUSED || errno == ENOENT) return false;
    if (errno != EAGAIN) failSystem(path);
    return true;
}

// What keeps the agent from looking keeps it from making a socket there, too.
void checkPlace(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return;
    if (!S_ISSOCK(status.st_mode)) fail(path, "exists and is not a socket");
    if (isAnswered(path)) fail(path, "another agent answers on it");
}

// The socket's name until it is ready. Reached through the folder's descriptor, so
// that it fits wherever the socket's own path does.
constexpr char kUnready[] = ".vexagent.new";

std::string throughDescriptor(const FolderLock& folder) {
    return "/proc/self/fd/" + std::to_string(folder.descriptor()) + "/" + kUnready;
}

int optionOf(int descriptor, int option) {
    int value = -1;
    socklen_t size = sizeof value;
    ::getsockopt(descriptor, SOL_SOCKET, option, &value, &size);
    return value;
}

bool listensToStreams(int descriptor) {
    return optionOf(descriptor, SO_DOMAIN) == AF_UNIX && optionOf(descriptor, SO_TYPE) == SOCK_STREAM &&
           optionOf(descriptor, SO_ACCEPTCONN) == 1;
}

// Where a socket is; an abstract name begins with a NUL.
std::string placeOf(int descriptor) {
    sockaddr_un address{};
    socklen_t size = sizeof address;
    if (::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) != 0) return {};
    const std::size_t length = size - std::min<std::size_t>(size, offsetof(sockaddr_un, sun_path));
    const std::string name(address.sun_path, std::min(length, sizeof address.sun_path));
    return name.starts_with('\0') ? name : name.substr(0, name.find('\0'));
}

// Whether both lead to one file: "/run" has another name on many hosts.
bool isSameFile(const std::string& a, const std::string& b) {
    struct stat first {
    }, second{};
    return a == b || (a.find('\0') == std::string::npos && ::stat(a.c_str(), &first) == 0 &&
                      ::stat(b.c_str(), &second) == 0 && first.st_dev == second.st_dev &&
                      first.st_ino == second.st_ino);
}

void checkHandedOver(const std::string& path, int descriptor) {
    if (!listensToStreams(descriptor))
        fail(path, "what the service manager handed over is not a listening Unix stream socket");
    const std::string place = placeOf(descriptor);
    if (!isSameFile(place, path))
        fail(path, "the service manager handed over a socket at \"" + vorn::printable(place) +
                       "\"; ListenStream of the socket's unit and agent.socket must be the same");
}

// What a socket of the agent's own making has from the start.
void giveOwnerAndMode(const SocketOptions& options) {
    const char* path = options.path.c_str();
    const gid_t group = options.group.value_or(::getegid());
    struct stat status {};
    if (::lstat(path, &status) != 0) failSystem(options.path);
    if (!S_ISSOCK(status.st_mode)) fail(options.path, "is not a socket any more");
    // Who owns it may set what it has already.
    if (::lchown(path, ::geteuid(), group) != 0 || ::chmod(path, options.mode) != 0)
        fail(options.path, std::string("cannot have the agent's owner, group and mode: ") +
                               std::strerror(errno) +
                               "; SocketUser of the socket's unit must be the agent's user");
}

void checkPath(const std::string& path) {
    if (path.empty() || path.size() > kLongestSocketPath) fail(path, "is not a possible path of a socket");
}

}  // namespace

SocketFile::SocketFile(const SocketOptions& options, vorn::Descriptor handedOver) : m_path(options.path) {
    checkPath(m_path);
    checkHandedOver(m_path, handedOver.get());
    giveOwnerAndMode(options);
    m_descriptor = std::move(handedOver);
}

SocketFile::SocketFile(const SocketOptions& options) : m_path(options.path) {
    checkPath(m_path);
    const FolderLock folder(m_path);
    checkPlace(m_path);
    // Made under another name and moved, mode and group set, so that the path
    // never shows a socket that is not ready.
    try {
        create(options, folder);
        if (::renameat(folder.descriptor(), kUnready, AT_FDCWD, m_path.c_str()) != 0) failSystem(m_path);
    } catch (...) {
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
    const int bound = ::bind(m_descriptor.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    ::umask(before);  // never fails
    if (bound != 0) failSystem(m_path);
    if (options.group &&
        ::fchownat(at, kUnready, static_cast<uid_t>(-1), *options.group, AT_SYMLINK_NOFOLLOW) != 0)
        failSystem(m_path);
    if (::fchmodat(at, kUnready, options.mode, 0) != 0) failSystem(m_path);
    if (::listen(m_descriptor.get(), SOMAXCONN) != 0) failSystem(m_path);
    struct stat status {};
    if (::fstatat(at, kUnready, &status, AT_SYMLINK_NOFOLLOW) != 0) failSystem(m_path);
    m_device = status.st_dev;
    m_inode = status.st_ino;
}

SocketFile::~SocketFile() {
    remove();
}

int SocketFile::release() {
    return m_descriptor.release();
}

void SocketFile::remove() {
    struct stat status {};
    if (::lstat(m_path.c_str(), &status) != 0) return;
    if (status.st_dev == m_device && status.st_ino == m_inode) ::unlink(m_path.c_str());
}

}  // namespace vexagent
