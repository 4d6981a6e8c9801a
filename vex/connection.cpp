// SPDX-License-Identifier: Apache-2.0
#include "vex/connection.h"

#include <flatbuffers/flatbuffers.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <iterator>

#include "vex/wire.h"

namespace vex {
namespace {

constexpr std::size_t kSmallBuffer = std::size_t{64} << 10;
constexpr std::size_t kLargestKeptBuffer = std::size_t{1} << 20;

// The length sits right before the frame's bytes, which FlatBuffers wants at a
// multiple of 8: so the buffer begins with as much unused space.
constexpr std::size_t kLead = 8 - wire::kLengthBytes;
constexpr std::size_t kBody = kLead + wire::kLengthBytes;

// What a blocking receive may overrun its deadline by, in exchange for saving a
// system call.
constexpr Milliseconds kSlack{20};

bool setTimeout(int descriptor, int which, Milliseconds timeout) {
    // A zero would mean to wait for ever.
    const auto milliseconds = std::max<Milliseconds::rep>(timeout.count(), 1);
    timeval value{};
    value.tv_sec = static_cast<time_t>(milliseconds / 1000);
    value.tv_usec = static_cast<suseconds_t>(milliseconds % 1000 * 1000);
    return ::setsockopt(descriptor, SOL_SOCKET, which, &value, sizeof value) == 0;
}

bool makeAddress(const std::string& path, sockaddr_un& address) {
    if (path.empty() || path.size() >= sizeof address.sun_path) return false;
    address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    return true;
}

// Has the kernel tell with what is received who sent it, or not any more.
bool setTellsSender(int descriptor, int tells) {
    return ::setsockopt(descriptor, SOL_SOCKET, SO_PASSCRED, &tells, sizeof tells) == 0;
}

// The process that sent what the message holds; 0 when that was not told.
pid_t senderOf(msghdr& message) {
    for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr; part = CMSG_NXTHDR(&message, part)) {
        if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_CREDENTIALS) continue;
        ucred sender{};
        std::memcpy(&sender, CMSG_DATA(part), sizeof sender);
        return sender.pid;
    }
    return 0;
}

bool wouldBlock(int error) {
    return error == EAGAIN || error == EWOULDBLOCK;
}

}  // namespace

std::unique_ptr<Connection> Connection::open(const Endpoint& endpoint, const vorn::Deadline& deadline) {
    std::unique_ptr<Connection> connection(new Connection(endpoint));
    if (!connection->connect(deadline) || !connection->readGreeting(deadline)) return nullptr;
    return connection;
}

std::unique_ptr<Connection> Connection::reach(const Endpoint& endpoint, const vorn::Deadline& deadline,
                                              Milliseconds patience) {
    std::unique_ptr<Connection> connection(new Connection(endpoint));
    if (!connection->connect(deadline)) return nullptr;
    if (!connection->wait(POLLIN, deadline.atMost(patience))) return connection;
    return connection->readGreeting(deadline) ? std::move(connection) : nullptr;
}

bool Connection::connect(const vorn::Deadline& deadline) {
    const int descriptor = m_socket.descriptor();
    sockaddr_un address;
    if (descriptor < 0 || !makeAddress(m_path, address) || !setTellsSender(descriptor, 1)) return false;
    // An agent that accepts nobody has a full queue, and nothing can be polled
    // for then; but connect itself waits, as long as the send timeout says.
    while (!deadline.passed()) {
        if (!setTimeout(descriptor, SO_SNDTIMEO, deadline.left())) return false;
        if (::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
            return setTimeout(descriptor, SO_RCVTIMEO, m_timeout);
        if (errno != EINTR) return false;
    }
    return false;
}

// Who greets is the agent: whoever made the socket, and listened on it before, may be
// another process.
bool Connection::readGreeting(const vorn::Deadline& deadline) {
    std::uint8_t greeting[wire::kGreetingBytes];
    for (std::size_t have = 0; have < sizeof greeting;) {
        const std::size_t more = receiveFromSender(std::span(greeting).subspan(have), deadline);
        if (more == 0) return false;
        have += more;
    }
    m_greeted = std::memcmp(greeting, wire::kMagic, sizeof wire::kMagic) == 0 &&
                flatbuffers::ReadScalar<std::uint32_t>(greeting + sizeof wire::kMagic) == wire::kVersion;
    return m_greeted && setTellsSender(m_socket.descriptor(), 0);
}

bool Connection::isQuiet() const {
    char byte;
    ssize_t found;
    do found = ::recv(m_socket.descriptor(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    while (found < 0 && errno == EINTR);
    if (found > 0) return !m_greeted;  // the greeting has come since
    return found < 0 && wouldBlock(errno);
}

Sent Connection::send(std::span<const std::uint8_t> bytes, const vorn::Deadline& deadline) {
    if (!awaitGreeting(deadline)) return Sent::Nothing;
    std::uint8_t length[wire::kLengthBytes];
    flatbuffers::WriteScalar(length, static_cast<std::uint32_t>(bytes.size()));
    const std::size_t total = sizeof length + bytes.size();
    std::size_t done = 0;
    while (done < total) {
        const std::size_t ofLength = std::min(done, sizeof length);
        const std::size_t ofBytes = done - ofLength;
        // sendmsg only reads, but its record knows no const.
        iovec parts[] = {{length + ofLength, sizeof length - ofLength},
                         {const_cast<std::uint8_t*>(bytes.data()) + ofBytes, bytes.size() - ofBytes}};
        msghdr message{};
        message.msg_iov = parts;
        message.msg_iovlen = std::size(parts);
        const ssize_t sent = ::sendmsg(m_socket.descriptor(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent >= 0) {
            done += static_cast<std::size_t>(sent);
            continue;
        }
        if (errno == EINTR) continue;
        if (!wouldBlock(errno) || !wait(POLLOUT, deadline)) return done == 0 ? Sent::Nothing : Sent::Partly;
    }
    return Sent::Whole;
}

std::span<const std::uint8_t> Connection::receive(const vorn::Deadline& deadline) {
    reserve(kSmallBuffer);
    m_filled = 0;
    std::size_t wanted = wire::kLengthBytes;
    while (m_filled < wanted) {
        const std::span<std::uint8_t> room(m_buffer.get() + kLead + m_filled, m_capacity - kLead - m_filled);
        const std::size_t more = receiveSome(room, deadline);
        if (more == 0) return {};
        m_filled += more;
        if (m_filled < wire::kLengthBytes) continue;
        const std::size_t length = flatbuffers::ReadScalar<std::uint32_t>(m_buffer.get() + kLead);
        if (length == 0 || length > wire::kMaxResponseBytes) return {};
        wanted = wire::kLengthBytes + length;
        if (wanted > m_capacity - kLead) reserve(kLead + wanted);
    }
    // More than one answer to one request: whose is which cannot be told.
    if (m_filled != wanted) return {};
    return {m_buffer.get() + kBody, wanted - wire::kLengthBytes};
}

// Makes room for so many bytes in all and keeps what is there.
void Connection::reserve(std::size_t bytes) {
    if (bytes <= m_capacity) return;
    std::unique_ptr<std::uint8_t[]> larger(new std::uint8_t[bytes]);
    if (m_buffer) std::memcpy(larger.get(), m_buffer.get(), kLead + m_filled);
    m_buffer = std::move(larger);
    m_capacity = bytes;
}

void Connection::shrink() {
    if (m_capacity <= kLargestKeptBuffer) return;
    m_buffer.reset();
    m_capacity = m_filled = 0;
}

bool Connection::wait(short events, const vorn::Deadline& deadline) const {
    pollfd descriptor = {m_socket.descriptor(), events, 0};
    while (!deadline.passed()) {
        const auto left = std::min<Milliseconds::rep>(deadline.left().count(), INT_MAX);
        const int ready = ::poll(&descriptor, 1, static_cast<int>(left));
        if (ready >= 0 || errno != EINTR) return ready > 0;
    }
    return false;
}

// Receives what there is, at least a byte; 0 when none comes any more.
std::size_t Connection::receiveSome(std::span<std::uint8_t> place, const vorn::Deadline& deadline) const {
    ssize_t received = blockingReceive(place, deadline);
    while (received < 0 && (errno == EINTR || wouldBlock(errno))) {
        if (!wait(POLLIN, deadline)) return 0;
        received = ::recv(m_socket.descriptor(), place.data(), place.size(), MSG_DONTWAIT);
    }
    return received > 0 ? static_cast<std::size_t>(received) : 0;
}

// As receiveSome, and notes who sent it.
std::size_t Connection::receiveFromSender(std::span<std::uint8_t> place, const vorn::Deadline& deadline) {
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
    iovec part = {place.data(), place.size()};
    if (!wait(POLLIN, deadline)) return 0;
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t received = ::recvmsg(m_socket.descriptor(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (received <= 0) return 0;
    m_agent = senderOf(message);
    return static_cast<std::size_t>(received);
}

// As long as the call has nearly all its time left, the socket's own timeout is
// the deadline, and one system call does for waiting and reading.
ssize_t Connection::blockingReceive(std::span<std::uint8_t> place, const vorn::Deadline& deadline) const {
    const auto left = deadline.left();
    const bool fresh = left <= m_timeout && left + kSlack >= m_timeout;
    return ::recv(m_socket.descriptor(), place.data(), place.size(),
                  fresh && left > kSlack ? 0 : MSG_DONTWAIT);
}

}  // namespace vex
