// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/sockets.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <thread>

#include "agent/ad/net/scripted_peer_testing.h"
#include "agent/ad/net/socket_pair_testing.h"

namespace vexagent {
namespace {

using std::chrono::milliseconds;
using vorn::Deadline;

Deadline within(milliseconds time) {
    return {vorn::systemSteadyClock(), time};
}

TEST(Sockets, AReadEndsAtItsDeadline) {
    const SocketPair pair;
    EXPECT_TRUE(writeAll(pair.theirs.get(), "ab", within(milliseconds(5000))));
    EXPECT_EQ(readExactly(pair.ours.get(), 2, within(milliseconds(5000))), "ab");
    EXPECT_TRUE(writeAll(pair.theirs.get(), "c", within(milliseconds(5000))));
    EXPECT_FALSE(readExactly(pair.ours.get(), 2, within(milliseconds(20))));
}

TEST(Sockets, APeerThatHasGoneOrTalksUnaskedDisturbs) {
    SocketPair pair;
    EXPECT_FALSE(isDisturbed(pair.ours.get()));
    EXPECT_TRUE(writeAll(pair.theirs.get(), "x", within(milliseconds(5000))));
    EXPECT_TRUE(isDisturbed(pair.ours.get()));
    SocketPair gone;
    gone.theirs = vorn::Descriptor(-1);
    EXPECT_TRUE(isDisturbed(gone.ours.get()));
}

TEST(Sockets, NobodyAtAPortIsToldAtOnce) {
    // A port that nobody listens on, since it is taken and never listened on.
    const vorn::Descriptor taken(::socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ASSERT_EQ(::bind(taken.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    ASSERT_EQ(::getsockname(taken.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    const std::uint16_t port = ntohs(address.sin_port);
    const auto socket = connectTo({"127.0.0.1", port}, within(milliseconds(5000)));
    ASSERT_FALSE(socket);
    EXPECT_EQ(socket.error(), "127.0.0.1 port " + std::to_string(port) + ": Connection refused");
}

int optionOf(int socket, int level, int name) {
    int value = -1;
    socklen_t size = sizeof value;
    EXPECT_EQ(::getsockopt(socket, level, name, &value, &size), 0);
    return value;
}

TEST(Sockets, AConnectionWaitsSendsAtOnceAndNoticesAPeerThatHasGone) {
    ScriptedPeer peer(2, "yes");
    const auto socket = connectTo(peer.peer(), within(milliseconds(5000)));
    ASSERT_TRUE(socket) << socket.error();
    EXPECT_EQ(::fcntl(socket->get(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(::fcntl(socket->get(), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(optionOf(socket->get(), IPPROTO_TCP, TCP_NODELAY), 1);
    EXPECT_EQ(optionOf(socket->get(), SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_TRUE(writeAll(socket->get(), "hi", within(milliseconds(5000))));
    EXPECT_EQ(readExactly(socket->get(), 3, within(milliseconds(5000))), "yes");
    EXPECT_EQ(readExactly(socket->get(), 1, within(milliseconds(5000))), std::nullopt);
}

TEST(Sockets, AnAddressMayBeOneOfSixteenBytes) {
    const vorn::Descriptor listener(::socket(AF_INET6, SOCK_STREAM, 0));
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    socklen_t size = sizeof address;
    if (::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), size) != 0)
        GTEST_SKIP() << "this host has no such address";
    ASSERT_EQ(::listen(listener.get(), 1), 0);
    ASSERT_EQ(::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    EXPECT_TRUE(connectTo({"::1", ntohs(address.sin6_port)}, within(milliseconds(5000))));
}

TEST(Sockets, AConnectionThatNobodyTakesEndsAtItsDeadline) {
    // One whose queue is full: nobody takes from it.
    const vorn::Descriptor listener(::socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ASSERT_EQ(::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    ASSERT_EQ(::listen(listener.get(), 0), 0);
    ASSERT_EQ(::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    const Peer peer{"127.0.0.1", ntohs(address.sin_port)};
    const auto first = connectTo(peer, within(milliseconds(5000)));
    ASSERT_TRUE(first);
    const auto late = connectTo(peer, within(milliseconds(50)));
    ASSERT_FALSE(late);
    EXPECT_TRUE(late.error().ends_with(": Connection timed out")) << late.error();
}

TEST(Sockets, WhatThePeerDoesNotTakeYetIsWaitedFor) {
    const std::string much(std::size_t{1} << 20, 'x');
    const SocketPair pair;
    EXPECT_FALSE(writeAll(pair.theirs.get(), much, within(milliseconds(20))));
    const SocketPair other;
    std::optional<std::string> read;
    std::thread reader(
        [&] { read = readExactly(other.ours.get(), much.size(), within(milliseconds(20'000))); });
    EXPECT_TRUE(writeAll(other.theirs.get(), much, within(milliseconds(20'000))));
    reader.join();
    EXPECT_EQ(read, much);
}

TEST(Sockets, NothingIsWrittenToOrReadFromAPeerThatHasGone) {
    SocketPair pair;
    pair.ours = vorn::Descriptor(-1);
    EXPECT_FALSE(writeAll(pair.theirs.get(), "x", within(milliseconds(5000))));
    EXPECT_EQ(readExactly(pair.theirs.get(), 1, within(milliseconds(5000))), std::nullopt);
    EXPECT_EQ(readExactly(-1, 1, within(milliseconds(20))), std::nullopt);
    EXPECT_EQ(readExactly(pair.theirs.get(), 0, within(milliseconds(0))), "");
}

}  // namespace
}  // namespace vexagent
