// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/sockets.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "agent/ad/net/addresses.h"

namespace vexagent {
namespace {

using vorn::Deadline;

void setPort(Address& address, std::uint16_t port) {
    if (address.bytes.ss_family == AF_INET)
        reinterpret_cast<sockaddr_in*>(&address.bytes)->sin_port = htons(port);
    else
        reinterpret_cast<sockaddr_in6*>(&address.bytes)->sin6_port = htons(port);
}

bool waitFor(int socket, short events, const Deadline& deadline) {
    for (;;) {
        pollfd entry{socket, events, 0};
        const int ready = ::poll(&entry, 1, static_cast<int>(deadline.left().count()));
        if (ready > 0) return true;
        if (ready == 0 || errno != EINTR) return false;
    }
}

// The end of an attempt that is under way: 0, or an error.
int finishConnecting(int socket, const Deadline& deadline) {
    if (!waitFor(socket, POLLOUT, deadline)) return ETIMEDOUT;
    int error = 0;
    socklen_t size = sizeof error;
    return ::getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

vorn::Expected<vorn::Descriptor, int> connectTo(const Address& address, const Deadline& deadline) {
    vorn::Descriptor socket(::socket(address.bytes.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (socket.get() < 0) return vorn::unexpected(errno);
    int error = 0;
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address.bytes), address.size) != 0)
        error = errno == EINPROGRESS ? finishConnecting(socket.get(), deadline) : errno;
    if (error != 0) return vorn::unexpected(error);
    ::fcntl(socket.get(), F_SETFL, ::fcntl(socket.get(), F_GETFL) & ~O_NONBLOCK);
    const int on = 1;
    ::setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    ::setsockopt(socket.get(), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    return socket;
}

}  // namespace

vorn::Expected<vorn::Descriptor, std::string> connectTo(const Peer& peer, const Deadline& deadline) {
    auto addresses = addressesOf(peer.host, deadline);
    if (!addresses) return vorn::unexpected(peer.host + ": no address: " + ::gai_strerror(addresses.error()));
    int error = EHOSTUNREACH;
    for (Address& address : *addresses) {
        setPort(address, peer.port);
        auto socket = connectTo(address, deadline);
        if (socket) return std::move(*socket);
        error = socket.error();
    }
    return vorn::unexpected(peer.host + " port " + std::to_string(peer.port) + ": " + std::strerror(error));
}

void learnAddresses(const std::string& host, const Deadline& deadline) {
    if (!deadline.passed()) static_cast<void>(addressesOf(host, deadline));
}

bool writeAll(int socket, std::string_view bytes, const Deadline& deadline) {
    while (!bytes.empty()) {
        const ssize_t count = ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno == EAGAIN) {
            if (!waitFor(socket, POLLOUT, deadline)) return false;
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

std::optional<std::string> readExactly(int socket, std::size_t size, const Deadline& deadline) {
    std::string bytes(size, '\0');
    for (std::size_t at = 0; at < size;) {
        if (!waitFor(socket, POLLIN, deadline)) return std::nullopt;
        const ssize_t count = ::recv(socket, bytes.data() + at, size - at, MSG_DONTWAIT);
        if (count == 0) return std::nullopt;
        if (count > 0)
            at += static_cast<std::size_t>(count);
        else if (errno != EAGAIN && errno != EINTR)
            return std::nullopt;
    }
    return bytes;
}

bool isDisturbed(int socket) {
    pollfd entry{socket, POLLIN, 0};
    return ::poll(&entry, 1, 0) != 0;
}

}  // namespace vexagent
