// SPDX-License-Identifier: Apache-2.0
// Whom the server accepts, who makes room, and how it ends.

#include "agent/server/server.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <future>

#include "agent/directory/log_testing.h"
#include "agent/server/descriptors_testing.h"
#include "agent/server/server_testing.h"
#include "agent/server/stepped_server_testing.h"

namespace vexagent {
namespace {

TEST_F(ServerTest, TheConnectionThatIsIdleLongestMakesRoom) {
    run(std::chrono::seconds(10), 2);
    const RawClient first(path());
    ASSERT_TRUE(first.isGreeted());
    const RawClient second(path());
    ASSERT_TRUE(second.isGreeted());
    ASSERT_TRUE(first.sendFrame(healthFrame(1)));
    EXPECT_EQ(first.receiveReply().code, VEX_OK);
    const RawClient third(path());
    ASSERT_TRUE(third.isGreeted());
    EXPECT_TRUE(second.isClosed());
    for (const RawClient* client : {&first, &third}) {
        ASSERT_TRUE(client->sendFrame(healthFrame(2)));
        EXPECT_EQ(client->receiveReply().code, VEX_OK);
    }
}

TEST_F(ServerTest, TheProcessWithTheMostConnectionsMakesRoom) {
    run(std::chrono::seconds(10), 4);
    const RawClient first(path());
    ASSERT_TRUE(first.isGreeted());
    const auto others = RawClient::ofAnotherProcess(path(), 3);
    for (const auto& other : others) ASSERT_TRUE(other->isGreeted());
    const RawClient last(path());
    ASSERT_TRUE(last.isGreeted());
    EXPECT_TRUE(others[0]->isClosed()) << "of those the one that is idle longest";
    const std::vector<const RawClient*> stay{&first, others[1].get(), others[2].get(), &last};
    for (const RawClient* client : stay) {
        ASSERT_TRUE(client->sendFrame(healthFrame(1)));
        EXPECT_EQ(client->receiveReply().id, 1u);
    }
}

TEST_F(ServerTest, ConnectionsAtWorkAreLimited) {
    run(std::chrono::seconds(10), 2);
    const std::unique_lock held(m_directory.gate);
    const RawClient first(path());
    const RawClient second(path());
    for (const RawClient* client : {&first, &second}) {
        ASSERT_TRUE(client->isGreeted());
        ASSERT_TRUE(client->sendFrame(searchFrame(1, "wait")));
    }
    while (m_directory.waiting < 2) std::this_thread::yield();
    const test::CapturedLog log;
    const RawClient third(path());
    EXPECT_TRUE(third.isClosed());
    EXPECT_NE(log.text().find("refused a connection of pid " + std::to_string(::getpid()) + " uid " +
                              std::to_string(::getuid()) + ": 2 are open\n"),
              std::string::npos)
        << log.text();
}

TEST_F(ServerTest, AHalfSentRequestHoldsNoPlace) {
    run(std::chrono::seconds(10), 2);
    const RawClient first(path());
    const RawClient second(path());
    for (const RawClient* client : {&first, &second}) {
        ASSERT_TRUE(client->isGreeted());
        ASSERT_TRUE(client->send({20, 0, 0}));
    }
    EXPECT_TRUE(serves());
}

TEST_F(ServerTest, SearchesThatNobodyGoesOnWithEndByThemselves) {
    ServerOptions options;
    options.sweepEvery = std::chrono::milliseconds(10);
    run(options);
    const RawClient client(path());
    ASSERT_TRUE(client.isGreeted());
    ASSERT_TRUE(client.sendFrame(searchFrame(1, "5")));
    ASSERT_NE(client.receiveReply().search, 0u);
    EXPECT_EQ(m_service.openSearches(), 1u);
    ahead = wire::kSearchIdleSeconds + 1;
    EXPECT_TRUE(noSearchStaysOpen());
    ASSERT_TRUE(client.sendFrame(searchFrame(2, "5")));
    ASSERT_NE(client.receiveReply().search, 0u);
    ahead += wire::kSearchIdleSeconds + 1;
    EXPECT_TRUE(noSearchStaysOpen()) << "and again";
}

TEST_F(ServerTest, StoppingEndsIdleConnections) {
    run();
    const RawClient client(path());
    ASSERT_TRUE(client.isGreeted());
    stop();
    EXPECT_TRUE(client.isClosed());
}

TEST_F(ServerTest, StoppingAnswersWhatWasSentBefore) {
    run();
    const RawClient client(path());
    ASSERT_TRUE(client.isGreeted());
    ASSERT_TRUE(client.sendFrame(healthFrame(1)));
    ASSERT_EQ(client.receiveReply().id, 1u);
    // The client has its answer a little before the connection waits for the next request.
    ASSERT_TRUE(m_pool.waitIdle(std::chrono::milliseconds(kSoonMs)));
    // In the thread that reads: it has not read them when it is told to stop.
    boost::asio::post(m_io, [&] {
        EXPECT_TRUE(client.sendFrame(healthFrame(2)));
        EXPECT_TRUE(client.sendFrame(healthFrame(3)));
        m_server->stop([] {});
        EXPECT_FALSE(client.sendFrame(healthFrame(4))) << "who comes too late is told so";
    });
    m_thread.join();
    EXPECT_EQ(client.receiveReply().id, 2u);
    EXPECT_EQ(client.receiveReply().id, 3u);
    EXPECT_TRUE(client.isClosed());
}

TEST_F(ServerTest, StoppingWaitsForARequestAtWorkAndForNoOtherOne) {
    run();
    const RawClient client(path());
    ASSERT_TRUE(client.isGreeted());
    {
        const std::unique_lock held(m_directory.gate);
        ASSERT_TRUE(client.sendFrame(searchFrame(1, "wait")));
        while (m_directory.waiting < 1) std::this_thread::yield();
        std::promise<void> stopping;
        boost::asio::post(m_io, [&] {
            m_server->stop([] {});
            stopping.set_value();
        });
        stopping.get_future().wait();
    }
    EXPECT_EQ(client.receiveReply().id, 1u);
    EXPECT_TRUE(client.isClosed());
    m_thread.join();
}

TEST_F(ServerTest, StoppingDoesNotWaitForTheRestOfARequest) {
    run();
    const RawClient client(path());
    ASSERT_TRUE(client.isGreeted());
    Bytes half = framed(healthFrame(1));
    half.resize(half.size() / 2);
    ASSERT_TRUE(client.send(half));
    stop();
    EXPECT_TRUE(client.isClosed());
}

TEST_F(ServerTest, WhoWaitsInTheSocketIsServedByTheNextAgent) {
    m_file = std::make_unique<SocketFile>(SocketOptions{path(), 0600});
    const vorn::Descriptor managers(m_file->release());
    const auto serve = [&] {
        m_server = std::make_unique<Server>(m_io, m_service, m_pool, ServerOptions());
        m_server->listen(::dup(managers.get()));
        m_io.restart();
        m_thread = std::thread([this] { m_io.run(); });
    };
    serve();
    const RawClient stays(path());
    ASSERT_TRUE(stays.isGreeted());
    stop();
    EXPECT_TRUE(stays.isClosed());
    const RawClient waits(path());
    EXPECT_TRUE(waits.sendFrame(healthFrame(7)));
    serve();
    EXPECT_TRUE(waits.isGreeted());
    EXPECT_EQ(waits.receiveReply().id, 7u);
    stop();
}

TEST_F(ServerTest, DoesNotWaitInASocketOfWhichAnotherAgentMayTakeTheClient) {
    m_file = std::make_unique<SocketFile>(SocketOptions{path(), 0600});
    const vorn::Descriptor managers(m_file->release());
    ASSERT_EQ(::fcntl(managers.get(), F_SETFL, 0), 0);
    m_server = std::make_unique<Server>(m_io, m_service, m_pool, ServerOptions());
    m_server->listen(::dup(managers.get()));
    EXPECT_NE(::fcntl(managers.get(), F_GETFL) & O_NONBLOCK, 0);
    m_thread = std::thread([this] { m_io.run(); });
}

class SteppedServerTest : public SteppedServer<FakeDirectory> {
  protected:
    SteppedServerTest() : SteppedServer({.maxClients = 2}) {}
};

TEST_F(SteppedServerTest, WhoHasGoneHoldsNoPlace) {
    for (int i = 0; i < 4; ++i) {
        {
            const SteppedClient client(path());
            run();
            EXPECT_TRUE(client.isGreeted()) << i;
        }
        run();
        EXPECT_EQ(m_server.connections(), 0u);
    }
}

TEST_F(SteppedServerTest, WhoDoesNotReadAnAnswerMakesRoom) {
    const SteppedClient deaf(path());
    run();
    ASSERT_TRUE(deaf.send(searchFrame(1, "large")));
    const SteppedClient idle(path());
    run();
    const SteppedClient newcomer(path());
    run();
    EXPECT_TRUE(newcomer.isGreeted());
    EXPECT_TRUE(deaf.isOver());
    EXPECT_FALSE(idle.isOver());
}

TEST_F(SteppedServerTest, ItsEndIsToldOnce) {
    const SteppedClient client(path());
    run();
    int told = 0;
    m_server.stop([&] { ++told; });
    run();
    EXPECT_EQ(told, 1);
    EXPECT_TRUE(client.isOver());
}

TEST_F(SteppedServerTest, WhoComesWhileThereIsNoDescriptorIsAcceptedOnceThereIsOne) {
    const SteppedClient client(path());
    {
        const FewDescriptors none(0);
        int steps = 0;
        while (steps < 1000 && m_io.poll_one() > 0) ++steps;
        EXPECT_LT(steps, 1000) << "trying again at once would only burn time";
        EXPECT_FALSE(client.isGreeted());
    }
    bool greeted = false;
    while (!greeted && m_io.run_one_for(std::chrono::seconds(20)) == 1) greeted = client.isGreeted();
    EXPECT_TRUE(greeted);
}

}  // namespace
}  // namespace vexagent
