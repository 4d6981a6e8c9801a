// SPDX-License-Identifier: Apache-2.0
// Connections of clients that behave and of clients that do not.

#include "agent/server/connection.h"

#include <gtest/gtest.h>

#include <future>

#include "agent/directory/log_testing.h"
#include "agent/server/server_testing.h"
#include "agent/server/stepped_server_testing.h"

namespace vexagent {
namespace {

class ConnectionTest : public ServerTest {};

TEST_F(ConnectionTest, ServesRequestsInTurn) {
    run();
    const RawClient client(path());
    ASSERT_TRUE(client.isGreeted());
    ASSERT_TRUE(client.sendFrame(searchFrame(1, "2")));
    const Reply first = client.receiveReply();
    EXPECT_EQ(first.dns, (std::vector<std::string>{"object 1"}));
    // Any connection of the process may go on with the search.
    const RawClient other(path());
    ASSERT_TRUE(other.isGreeted());
    ASSERT_TRUE(other.sendFrame(nextFrame(2, first.search)));
    EXPECT_EQ(other.receiveReply().dns, (std::vector<std::string>{"object 2"}));
    // A close is not answered, so the next answer is the next request's.
    ASSERT_TRUE(client.sendFrame(closeFrame(3, first.search)));
    ASSERT_TRUE(client.sendFrame(healthFrame(4)));
    EXPECT_EQ(client.receiveReply().id, 4u);
}

TEST_F(ConnectionTest, AFrameInPiecesIsOne) {
    run();
    const RawClient client(path());
    ASSERT_TRUE(client.isGreeted());
    const Bytes frame = framed(loginFrame(5, "ann", std::string(200'000, 'x')));
    for (std::size_t at = 0; at < frame.size(); at += 33'333)
        ASSERT_TRUE(client.send(
            Bytes(frame.begin() + static_cast<std::ptrdiff_t>(at),
                  frame.begin() + static_cast<std::ptrdiff_t>(std::min(frame.size(), at + 33'333)))));
    EXPECT_EQ(client.receiveReply().code, VEX_WRONG_PASSWORD);
}

TEST_F(ConnectionTest, WrongLengthsEndTheConnection) {
    run();
    for (const Bytes& length : {Bytes{0, 0, 0, 0}, Bytes{1, 0, 16, 0}, Bytes{255, 255, 255, 255}}) {
        const RawClient client(path());
        ASSERT_TRUE(client.isGreeted());
        ASSERT_TRUE(client.send(length));
        EXPECT_TRUE(client.isClosed());
    }
    EXPECT_TRUE(serves());
}

TEST_F(ConnectionTest, GarbageEndsTheConnection) {
    run();
    Bytes damaged = searchFrame(1, "(cn=a)");
    damaged[0] = 0xff;
    for (const Bytes& body : {Bytes(100, 'x'), Bytes{0}, damaged}) {
        const RawClient client(path());
        ASSERT_TRUE(client.isGreeted());
        ASSERT_TRUE(client.sendFrame(body));
        EXPECT_TRUE(client.isClosed());
    }
    EXPECT_TRUE(serves());
}

TEST_F(ConnectionTest, AnUnknownRequestIsRefusedByItsIdAndEndsTheConnection) {
    run();
    const RawClient client(path());
    ASSERT_TRUE(client.isGreeted());
    ASSERT_TRUE(client.sendFrame(requestFrame(99, static_cast<wire::Body>(200),
                                              [](auto& builder) { return wire::CreateHealth(builder); })));
    const Reply reply = client.receiveReply();
    EXPECT_EQ(reply.id, 99u);
    EXPECT_EQ(reply.code, VEX_REFUSED);
    EXPECT_EQ(reply.errText, "unknown request");
    EXPECT_TRUE(client.isClosed());
}

TEST_F(ConnectionTest, HalfAFrameIsWaitedForOnlySoLong) {
    run(std::chrono::milliseconds(50));
    const RawClient client(path());
    ASSERT_TRUE(client.isGreeted());
    ASSERT_TRUE(client.send({100, 0, 0, 0, 'x'}));
    EXPECT_TRUE(client.isClosed());
    const RawClient other(path());
    ASSERT_TRUE(other.isGreeted());
    ASSERT_TRUE(other.send({100}));
    EXPECT_TRUE(other.isClosed());
    EXPECT_TRUE(serves());
}

TEST_F(ConnectionTest, AFrameThatDripsIsWaitedForNoLonger) {
    run(std::chrono::milliseconds(200));
    const RawClient client(path());
    ASSERT_TRUE(client.isGreeted());
    ASSERT_TRUE(client.send({0, 0, 8, 0}));
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kSoonMs);
    while (!client.isHungUp(20) && std::chrono::steady_clock::now() < end) client.send({'x'});
    EXPECT_TRUE(client.isHungUp(0));
    EXPECT_TRUE(serves());
}

TEST_F(ConnectionTest, SilenceBetweenRequestsIsNoFault) {
    run(std::chrono::milliseconds(50));
    const RawClient client(path());
    ASSERT_TRUE(client.isGreeted());
    // Others' time-outs pass meanwhile.
    const RawClient half(path());
    ASSERT_TRUE(half.isGreeted());
    ASSERT_TRUE(half.send({1}));
    ASSERT_TRUE(half.isClosed());
    ASSERT_TRUE(client.sendFrame(healthFrame(1)));
    EXPECT_EQ(client.receiveReply().code, VEX_OK);
}

TEST_F(ConnectionTest, WhoAsksNothingForLongIsDropped) {
    ServerOptions options;
    options.idle = std::chrono::milliseconds(300);
    run(options);
    const RawClient client(path());
    ASSERT_TRUE(client.isGreeted());
    // Each request puts the end off.
    const auto twice = std::chrono::steady_clock::now() + 2 * options.idle;
    do {
        ASSERT_TRUE(client.sendFrame(healthFrame(1)));
        ASSERT_EQ(client.receiveReply().id, 1u);
    } while (std::chrono::steady_clock::now() < twice);
    EXPECT_TRUE(client.isClosed());
    EXPECT_GT(std::chrono::steady_clock::now(), twice + options.idle / 2);
}

TEST_F(ConnectionTest, WhoWaitsForAnAnswerForLongIsNotIdle) {
    ServerOptions options;
    options.idle = std::chrono::milliseconds(100);
    run(options);
    const RawClient client(path());
    {
        const std::unique_lock held(m_directory.gate);
        ASSERT_TRUE(client.sendFrame(searchFrame(1, "wait")));
        ASSERT_TRUE(client.isGreeted());
        while (m_directory.waiting < 1) std::this_thread::yield();
        const RawClient idle(path());
        ASSERT_TRUE(idle.isGreeted());
        ASSERT_TRUE(idle.isClosed());
    }
    EXPECT_EQ(client.receiveReply().id, 1u);
}

TEST_F(ConnectionTest, RequestsInOnePieceAreAnsweredInTurn) {
    run();
    const RawClient client(path());
    ASSERT_TRUE(client.isGreeted());
    Bytes both;
    for (std::uint32_t id : {1u, 2u}) {
        const Bytes frame = framed(healthFrame(id));
        both.insert(both.end(), frame.begin(), frame.end());
    }
    ASSERT_TRUE(client.send(both));
    EXPECT_EQ(client.receiveReply().id, 1u);
    EXPECT_EQ(client.receiveReply().id, 2u);
}

TEST_F(ConnectionTest, AnAnswerLargerThanTheSocketTakesArrivesWhole) {
    run();
    const RawClient client(path());
    ASSERT_TRUE(client.isGreeted());
    ASSERT_TRUE(client.sendFrame(searchFrame(1, "large")));
    const Bytes length = client.receive(wire::kLengthBytes);
    ASSERT_EQ(length.size(), wire::kLengthBytes);
    const std::size_t size = length[0] | length[1] << 8 | length[2] << 16 | std::size_t{length[3]} << 24;
    ASSERT_GT(size, std::size_t{16} << 20);
    const Bytes body = client.receive(size);
    ASSERT_EQ(body.size(), size);
    EXPECT_GE(std::count(body.begin(), body.end(), 'x'), 16 << 20);
    ASSERT_TRUE(client.sendFrame(healthFrame(2)));
    EXPECT_EQ(client.receiveReply().id, 2u);
}

TEST_F(ConnectionTest, WhoDoesNotReadIsDropped) {
    run(std::chrono::milliseconds(50));
    const RawClient client(path());
    ASSERT_TRUE(client.isGreeted());
    // More than the socket's buffer takes, and nothing is read.
    ASSERT_TRUE(client.sendFrame(searchFrame(1, "large")));
    EXPECT_TRUE(serves());
    ASSERT_TRUE(client.isHungUp());
    const Bytes all = client.receive(std::size_t{32} << 20);
    EXPECT_LT(all.size(), std::size_t{16} << 20);
}

TEST_F(ConnectionTest, LeavingInTheMidstHarmsNobody) {
    run();
    for (int i = 0; i < 20; ++i) {
        const RawClient client(path());
        ASSERT_TRUE(client.send({20, 0, 0, 0, 'x'}));
    }
    for (int i = 0; i < 20; ++i) {
        const RawClient client(path());
        ASSERT_TRUE(client.sendFrame(searchFrame(1, "large")));
    }
    EXPECT_TRUE(serves());
}

TEST_F(ConnectionTest, WhoSendsGarbageIsNamedInTheLog) {
    const test::CapturedLog log;
    run();
    const RawClient client(path());
    ASSERT_TRUE(client.isGreeted());
    ASSERT_TRUE(client.sendFrame(Bytes(100, 'x')));
    EXPECT_TRUE(client.isClosed());
    const RawClient other(path());
    ASSERT_TRUE(other.isGreeted());
    ASSERT_TRUE(other.send({0, 0, 0, 0}));
    EXPECT_TRUE(other.isClosed());
    stop();
    const std::string who = "pid " + std::to_string(::getpid()) + " uid " + std::to_string(::getuid()) + "\n";
    EXPECT_NE(log.text().find("refused a malformed request of " + who), std::string::npos) << log.text();
    EXPECT_NE(log.text().find("refused a frame of 0 bytes from " + who), std::string::npos) << log.text();
}

TEST_F(ConnectionTest, SearchesEndWithTheProcesssLastConnection) {
    run();
    {
        const RawClient client(path());
        ASSERT_TRUE(client.isGreeted());
        ASSERT_TRUE(client.sendFrame(searchFrame(1, "5")));
        ASSERT_NE(client.receiveReply().search, 0u);
        EXPECT_EQ(m_service.openSearches(), 1u);
    }
    EXPECT_TRUE(noSearchStaysOpen());
}

// In these the process has another connection, with which its searches would go on.
TEST_F(ConnectionTest, ASearchEndsWhoseAnswerIsNotRead) {
    run();
    const RawClient stays(path());
    ASSERT_TRUE(stays.isGreeted());
    {
        const RawClient client(path());
        ASSERT_TRUE(client.isGreeted());
        ASSERT_TRUE(client.sendFrame(searchFrame(1, "2")));
        ASSERT_EQ(client.receive(1).size(), 1u) << "it is there";
        EXPECT_EQ(m_service.openSearches(), 1u);
    }
    EXPECT_TRUE(noSearchStaysOpen());
}

TEST_F(ConnectionTest, ASearchEndsWhoseAnswerCannotBeSent) {
    run();
    const RawClient stays(path());
    ASSERT_TRUE(stays.isGreeted());
    std::promise<void> clientHasGone;
    const std::shared_future<void> then = clientHasGone.get_future().share();
    for (int i = 0; i < kWorkers; ++i) m_pool.post(Lane::Quick, [then] { then.wait(); });
    {
        const RawClient client(path());
        ASSERT_TRUE(client.isGreeted());
        ASSERT_TRUE(client.sendFrame(searchFrame(1, "2")));
    }
    clientHasGone.set_value();
    EXPECT_TRUE(soon([&] { return m_service.statistics().find("search 1,") != std::string::npos; }));
    EXPECT_TRUE(noSearchStaysOpen());
}

TEST_F(ConnectionTest, ASearchOutlivesTheConnectionThatItsAnswerWasReadFrom) {
    run();
    const RawClient stays(path());
    ASSERT_TRUE(stays.isGreeted());
    std::uint64_t search = 0;
    {
        const RawClient client(path());
        ASSERT_TRUE(client.isGreeted());
        ASSERT_TRUE(client.sendFrame(searchFrame(1, "3")));
        search = client.receiveReply().search;
    }
    ASSERT_TRUE(serves()) << "the agent has seen the end of the connection before";
    ASSERT_TRUE(stays.sendFrame(nextFrame(2, search)));
    EXPECT_EQ(stays.receiveReply().search, search);
}

TEST_F(ConnectionTest, ASearchOutlivesTheConnectionThatMadeRoom) {
    run(std::chrono::seconds(10), 2);
    const RawClient first(path());
    ASSERT_TRUE(first.isGreeted());
    ASSERT_TRUE(first.sendFrame(searchFrame(1, "3")));
    const std::uint64_t search = first.receiveReply().search;
    // The client has its answer a little before the connection waits for the next request.
    ASSERT_TRUE(m_pool.waitIdle(std::chrono::milliseconds(kSoonMs)));
    const RawClient second(path());
    ASSERT_TRUE(second.isGreeted());
    const RawClient third(path());
    ASSERT_TRUE(third.isGreeted());
    ASSERT_TRUE(first.isClosed());
    ASSERT_TRUE(third.sendFrame(nextFrame(2, search)));
    EXPECT_EQ(third.receiveReply().search, search);
}

// ------------------------------------------------------------ step by step

// The timer, set for the greeting, is set for an earlier moment once that is written.
class SteppedConnection : public SteppedServer<FakeDirectory> {
  protected:
    SteppedConnection()
        : SteppedServer({.timeout = std::chrono::minutes(10), .idle = std::chrono::minutes(1)}) {}
};

TEST_F(SteppedConnection, IsAtRestUntilItsClientAsks) {
    const SteppedClient client(path());
    int steps = 0;
    while (steps < 1000 && m_io.poll_one() > 0) ++steps;
    EXPECT_LT(steps, 1000);
    EXPECT_TRUE(client.isGreeted());
}

TEST_F(SteppedConnection, AnswersThatAreReadLateArriveWhole) {
    constexpr int kRequests = 2000;
    const SteppedClient client(path());
    run();
    ASSERT_TRUE(client.isGreeted());
    ASSERT_TRUE(client.send(healthFrame(1)));
    run();
    const Bytes one = client.receive();
    ASSERT_EQ(readReply(one).code, VEX_OK);
    // Until the socket takes none of the next one.
    ASSERT_TRUE(client.send(healthFrame(1), kRequests));
    run();
    Bytes all;
    for (Bytes part = client.receive(); !part.empty(); part = client.receive()) {
        all.insert(all.end(), part.begin(), part.end());
        run();
    }
    ASSERT_EQ(all.size(), kRequests * one.size());
    for (auto at = all.begin(); at != all.end(); at += static_cast<std::ptrdiff_t>(one.size()))
        ASSERT_TRUE(std::equal(one.begin(), one.end(), at));
}

}  // namespace
}  // namespace vexagent
