// SPDX-License-Identifier: Apache-2.0
// The server under clients that behave and clients that do not.

#include "agent/server/server.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <boost/asio/post.hpp>
#include <functional>
#include <future>
#include <thread>

#include "agent/directory/fake_directory_testing.h"
#include "agent/directory/log_testing.h"
#include "agent/server/frames_testing.h"
#include "agent/server/socket_file.h"
#include "vorn/temporary_folder_testing.h"

namespace vexagent {

using vorn::test::TemporaryFolder;

namespace {

constexpr int kSoonMs = 20'000;
constexpr int kWorkers = 3;

// A frame as it is sent: its length first.
Bytes framed(const Bytes& body) {
    Bytes frame;
    for (std::size_t i = 0; i < wire::kLengthBytes; ++i)
        frame.push_back(static_cast<std::uint8_t>(body.size() >> 8 * i));
    frame.insert(frame.end(), body.begin(), body.end());
    return frame;
}

// A client that may send anything.
class RawClient {
  public:
    explicit RawClient(const std::string& path)
        : m_descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, path.size());
        EXPECT_EQ(::connect(m_descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    ~RawClient() { ::close(m_descriptor); }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    bool send(const Bytes& bytes) const {
        return ::send(m_descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }
    bool sendFrame(const Bytes& body) const { return send(framed(body)); }
    // So many bytes; fewer when the agent closes.
    Bytes receive(std::size_t size) const {
        Bytes bytes;
        std::uint8_t byte[4096];
        pollfd wait{m_descriptor, POLLIN, 0};
        while (bytes.size() < size && ::poll(&wait, 1, kSoonMs) == 1) {
            const ssize_t got = ::recv(m_descriptor, byte, std::min(sizeof byte, size - bytes.size()), 0);
            if (got <= 0) break;
            bytes.insert(bytes.end(), byte, byte + got);
        }
        return bytes;
    }
    bool isGreeted() const {
        return receive(wire::kGreetingBytes) == Bytes{'V', 'E', 'X', 'A', wire::kVersion, 0, 0, 0};
    }
    Reply receiveReply() const {
        Bytes frame = receive(wire::kLengthBytes);
        if (frame.size() != wire::kLengthBytes) return {};
        std::uint32_t length = 0;
        for (std::size_t i = wire::kLengthBytes; i-- > 0;) length = length << 8 | frame[i];
        const Bytes body = receive(length);
        frame.insert(frame.end(), body.begin(), body.end());
        return readReply(frame);
    }
    // Whether the agent ends the connection, in good time.
    bool isClosed() const {
        pollfd wait{m_descriptor, POLLIN, 0};
        std::uint8_t byte = 0;
        return ::poll(&wait, 1, kSoonMs) == 1 && ::recv(m_descriptor, &byte, 1, 0) <= 0;
    }

    // Whether the agent has ended the connection, without reading what it sent.
    bool isHungUp(int milliseconds = kSoonMs) const {
        pollfd wait{m_descriptor, 0, 0};
        return ::poll(&wait, 1, milliseconds) == 1;
    }

  private:
    const int m_descriptor;
};

std::atomic<std::time_t> ahead = 0;  // of the clock by which searches are idle

class ServerTest : public ::testing::Test {
  protected:
    ServerTest() { ahead = 0; }
    void run(std::chrono::milliseconds timeout = std::chrono::seconds(10), std::size_t maxClients = 100) {
        ServerOptions options;
        options.timeout = timeout;
        options.maxClients = maxClients;
        run(options);
    }
    void run(const ServerOptions& options) {
        m_server = std::make_unique<Server>(m_io, m_service, m_pool, options);
        m_file = std::make_unique<SocketFile>(SocketOptions{path(), 0600});
        m_server->listen(m_file->release());
        m_thread = std::thread([this] { m_io.run(); });
    }
    void stop() {
        if (!m_thread.joinable()) return;
        boost::asio::post(m_io, [this] { m_server->stop([] {}); });
        m_thread.join();
        ASSERT_TRUE(m_pool.waitIdle(std::chrono::milliseconds(kSoonMs)));
    }
    ~ServerTest() override { stop(); }

    std::string path() const { return m_folder.file("s"); }
    static bool soon(const std::function<bool()>& condition) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kSoonMs);
        while (!condition() && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
        return condition();
    }
    bool noSearchStaysOpen() const {
        return soon([this] { return m_service.openSearches() == 0; });
    }
    // Whether an honest client is served.
    bool serves() const {
        const RawClient client(path());
        return client.isGreeted() && client.sendFrame(healthFrame(77)) && client.receiveReply().id == 77;
    }

    TemporaryFolder m_folder;
    FakeDirectory m_directory;
    Service m_service{m_directory, [] { return vorn::systemTime() + ahead; }};
    WorkerPool m_pool{kWorkers};
    boost::asio::io_context m_io{1};
    std::unique_ptr<Server> m_server;
    std::unique_ptr<SocketFile> m_file;
    std::thread m_thread;
};

TEST_F(ServerTest, ServesRequestsInTurn) {
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

TEST_F(ServerTest, AFrameInPiecesIsOne) {
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

TEST_F(ServerTest, WrongLengthsEndTheConnection) {
    run();
    for (const Bytes& length : {Bytes{0, 0, 0, 0}, Bytes{1, 0, 16, 0}, Bytes{255, 255, 255, 255}}) {
        const RawClient client(path());
        ASSERT_TRUE(client.isGreeted());
        ASSERT_TRUE(client.send(length));
        EXPECT_TRUE(client.isClosed());
    }
    EXPECT_TRUE(serves());
}

TEST_F(ServerTest, GarbageEndsTheConnection) {
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

TEST_F(ServerTest, AnUnknownRequestIsRefusedByItsIdAndEndsTheConnection) {
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

TEST_F(ServerTest, HalfAFrameIsWaitedForOnlySoLong) {
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

TEST_F(ServerTest, AFrameThatDripsIsWaitedForNoLonger) {
    run(std::chrono::milliseconds(200));
    const RawClient client(path());
    ASSERT_TRUE(client.isGreeted());
    ASSERT_TRUE(client.send({0, 0, 8, 0}));
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kSoonMs);
    while (!client.isHungUp(20) && std::chrono::steady_clock::now() < end) client.send({'x'});
    EXPECT_TRUE(client.isHungUp(0));
    EXPECT_TRUE(serves());
}

TEST_F(ServerTest, SilenceBetweenRequestsIsNoFault) {
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

TEST_F(ServerTest, WhoAsksNothingForLongIsDropped) {
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

TEST_F(ServerTest, RequestsInOnePieceAreAnsweredInTurn) {
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

TEST_F(ServerTest, AnAnswerLargerThanTheSocketTakesArrivesWhole) {
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

TEST_F(ServerTest, WhoDoesNotReadIsDropped) {
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

TEST_F(ServerTest, LeavingInTheMidstHarmsNobody) {
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
    const RawClient third(path());
    EXPECT_TRUE(third.isClosed());
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
}

TEST_F(ServerTest, WhoSendsGarbageIsNamedInTheLog) {
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

TEST_F(ServerTest, SearchesEndWithTheProcesssLastConnection) {
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
TEST_F(ServerTest, ASearchEndsWhoseAnswerIsNotRead) {
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

TEST_F(ServerTest, ASearchEndsWhoseAnswerCannotBeSent) {
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

TEST_F(ServerTest, ASearchOutlivesTheConnectionThatItsAnswerWasReadFrom) {
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

}  // namespace
}  // namespace vexagent
