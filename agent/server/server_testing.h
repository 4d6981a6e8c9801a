// SPDX-License-Identifier: Apache-2.0
// A server that runs in a thread of its own, and clients that may do anything.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/asio/post.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "agent/directory/fake_directory_testing.h"
#include "agent/server/frames_testing.h"
#include "agent/server/server.h"
#include "agent/server/socket_file.h"
#include "vorn/temporary_folder_testing.h"

namespace vexagent {

inline constexpr int kSoonMs = 20'000;
inline constexpr int kWorkers = 3;

// A client that may send anything.
class RawClient {
  public:
    explicit RawClient(const std::string& path) : RawClient() { EXPECT_TRUE(connect(path)); }
    ~RawClient() { ::close(m_descriptor); }
    // So many, that all are of one other process.
    static std::vector<std::unique_ptr<RawClient>> ofAnotherProcess(const std::string& path, int count) {
        std::vector<std::unique_ptr<RawClient>> clients;
        for (int i = 0; i < count; ++i) clients.emplace_back(new RawClient);
        const pid_t other = ::fork();
        if (other == 0) {
            const bool good = std::all_of(clients.begin(), clients.end(),
                                          [&](const auto& client) { return client->connect(path); });
            ::_exit(good ? 0 : 1);
        }
        int status = -1;
        EXPECT_EQ(::waitpid(other, &status, 0), other);
        EXPECT_EQ(status, 0);
        return clients;
    }
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
    RawClient() : m_descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}
    bool connect(const std::string& path) const {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, path.size());
        return ::connect(m_descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }

    const int m_descriptor;
};

inline std::atomic<std::time_t> ahead = 0;  // of the clock by which searches are idle

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

    vorn::test::TemporaryFolder m_folder;
    FakeDirectory m_directory;
    Service m_service{m_directory, [] { return vorn::systemTime() + ahead; }};
    WorkerPool m_pool{kWorkers};
    boost::asio::io_context m_io{1};
    std::unique_ptr<Server> m_server;
    std::unique_ptr<SocketFile> m_file;
    std::thread m_thread;
};

}  // namespace vexagent
