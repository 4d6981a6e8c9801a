// SPDX-License-Identifier: Apache-2.0
// A server whose I/O the test runs itself, step by step, and a client for it.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <boost/asio/io_context.hpp>
#include <chrono>
#include <string>

#include "agent/server/frames_testing.h"
#include "agent/server/server.h"
#include "agent/server/socket_file.h"
#include "vorn/descriptor.h"
#include "vorn/temporary_folder_testing.h"

namespace vexagent {

// The whole server, before a directory of the test's choice, with one worker.
template <typename ADirectory>
class SteppedServer : public testing::Test {
  protected:
    explicit SteppedServer(const ServerOptions& options = {}) : m_server(m_io, m_service, m_pool, options) {
        m_server.listen(m_file.release());
        run();
    }
    ~SteppedServer() override {
        m_server.stop([] {});
        run();
    }

    // Until nothing is left to do.
    void run() {
        do m_pool.waitIdle(std::chrono::seconds(20));
        while (m_io.poll() > 0);
    }
    std::string path() const { return m_folder.file("s"); }

    vorn::test::TemporaryFolder m_folder;
    ADirectory m_directory;
    Service m_service{m_directory, vorn::systemTime};
    WorkerPool m_pool{1};
    boost::asio::io_context m_io{1};
    Server m_server;
    SocketFile m_file{SocketOptions{path(), 0600}};
};

// A client that waits for nothing.
class SteppedClient {
  public:
    explicit SteppedClient(const std::string& path)
        : m_socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, path.size());
        EXPECT_EQ(::connect(m_socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }

    // Whether all of them could be sent.
    bool send(const Bytes& body, int times = 1) const {
        const Bytes frame = framed(body);
        Bytes all;
        for (int i = 0; i < times; ++i) all.insert(all.end(), frame.begin(), frame.end());
        return ::send(m_socket.get(), all.data(), all.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(all.size());
    }
    // What has come.
    Bytes receive() const {
        Bytes bytes(4096);
        const ssize_t got = ::recv(m_socket.get(), bytes.data(), bytes.size(), 0);
        bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
        return bytes;
    }
    bool isGreeted() const { return receive().size() == wire::kGreetingBytes; }
    bool isAnswered() const {
        const Bytes answer = receive();
        return !answer.empty() && readReply(answer).code == VEX_OK;
    }
    // Whether the agent has ended the connection.
    bool isOver() const {
        pollfd state{m_socket.get(), POLLIN | POLLRDHUP, 0};
        return ::poll(&state, 1, 0) == 1 && (state.revents & (POLLRDHUP | POLLHUP)) != 0;
    }

  private:
    const vorn::Descriptor m_socket;
};

}  // namespace vexagent
