// SPDX-License-Identifier: Apache-2.0
// A connection by itself, over a pair of sockets, and those that are kept.
#include "vex/connection.h"

#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>
#include <thread>

#include "vex/pool.h"
#include "vex/scripted_agent_testing.h"

namespace vextest {
namespace {

using vex::Connection;
using vex::Endpoint;
using vex::Milliseconds;
using vex::Pool;

const Endpoint kEndpoint{"/nowhere", Milliseconds(60'000)};

struct Pair {
    Pair() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0); }
    ~Pair() { closePeer(); }
    Pair(const Pair&) = delete;
    Pair& operator=(const Pair&) = delete;
    void closePeer() {
        if (ends[1] >= 0) ::close(ends[1]);
        ends[1] = -1;
    }
    std::array<int, 2> ends{-1, -1};  // the first is the connection's
};

TEST(Connection, ThatIsClosedIsNotQuietWhateverFailedBefore) {
    Pair pair;
    const Connection connection(kEndpoint, pair.ends[0]);
    EXPECT_TRUE(connection.isQuiet());
    pair.closePeer();
    errno = EINTR;
    EXPECT_FALSE(connection.isQuiet());
}

// Its socket has no time limit of its own, so it would wait for ever.
TEST(Connection, WithLessThanAWholeCallsTimeWaitsForNoMoreThanThat) {
    Pair pair;
    Connection connection(kEndpoint, pair.ends[0]);
    const vorn::Deadline little(vorn::systemSteadyClock(), Milliseconds(30));
    EXPECT_TRUE(connection.receive(little).empty());
    EXPECT_TRUE(little.passed());
}

vorn::Deadline soon() {
    return {vorn::systemSteadyClock(), Milliseconds(20'000)};
}

TEST(Connection, SendsWhateverFailedBefore) {
    Pair pair;
    Connection connection(kEndpoint, pair.ends[0]);
    const std::array<std::uint8_t, 8> bytes{};
    for (const int before : {0, EPIPE, EAGAIN, EINTR}) {
        errno = before;
        EXPECT_EQ(connection.send(bytes, soon()), vex::Sent::Whole) << before;
    }
}

// The first byte of the length is there, and the rest of it comes when that has been read.
TEST(Connection, WaitsForTheWholeLength) {
    Pair pair;
    Connection connection(kEndpoint, pair.ends[0]);
    const std::string shorter = frame(std::string(8, 'x')), longer = frame(std::string(256, 'y'));
    ASSERT_EQ(::send(pair.ends[1], shorter.data(), shorter.size(), 0), static_cast<ssize_t>(shorter.size()));
    EXPECT_EQ(connection.receive(soon()).size(), 8U);
    ASSERT_EQ(::send(pair.ends[1], longer.data(), 1, 0), 1);
    std::thread rest([&] {
        for (int unread = 1; unread != 0; std::this_thread::yield()) ::ioctl(pair.ends[0], FIONREAD, &unread);
        ::send(pair.ends[1], longer.data() + 1, longer.size() - 1, 0);
    });
    EXPECT_EQ(connection.receive(soon()).size(), 256U);
    rest.join();
}

TEST(Connection, SoManyAreKeptAndNoMore) {
    while (Pool::process().take(kEndpoint.path)) continue;
    const std::size_t before = vex::openSockets();
    std::array<Pair, Pool::kMaxIdle + 3> pairs;
    for (Pair& pair : pairs) Pool::process().give(std::make_unique<Connection>(kEndpoint, pair.ends[0]));
    EXPECT_EQ(vex::openSockets(), before + Pool::kMaxIdle);
    while (Pool::process().take(kEndpoint.path)) continue;
    EXPECT_EQ(vex::openSockets(), before);
}

}  // namespace
}  // namespace vextest
