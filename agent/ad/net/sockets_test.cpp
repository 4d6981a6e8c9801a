// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/sockets.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

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

}  // namespace
}  // namespace vexagent
