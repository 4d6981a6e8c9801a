// SPDX-License-Identifier: Apache-2.0
// After an authentication no copy of the password is left in the agent's writable
// memory, whatever became of the request.

#include <crypt.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/post.hpp>
#include <future>
#include <memory>
#include <thread>

#include "agent/embedded/directory_testing.h"
#include "agent/server/frames_testing.h"
#include "agent/server/server.h"
#include "agent/server/socket_file.h"
#include "vorn/memory_scan_testing.h"

namespace vexagent {
namespace {

using vorn::test::Disguised;
using vorn::test::MemoryScan;

// The hash of a secret that this function leaves nowhere.
std::string hashOf(const Disguised& secret) {
    std::vector<char> text(secret.size() + 1);
    secret.reveal(text.data());
    const auto data = std::make_unique<crypt_data>();
    const char* computed = crypt_r(text.data(), "$6$rounds=1000$salt", data.get());
    std::string hash = computed;
    explicit_bzero(text.data(), text.size());
    explicit_bzero(data.get(), sizeof *data);
    return hash;
}

// The frame of a log-in, with room for the password where it stands.
struct LoginFrame {
    Bytes bytes;
    std::size_t at = 0;
};

LoginFrame loginFrame(const std::string& user, std::size_t size) {
    const std::string room(size, '?');
    const Bytes body = vexagent::loginFrame(1, user, room);
    LoginFrame frame;
    frame.bytes = framed(body);
    const auto found = std::search(frame.bytes.begin(), frame.bytes.end(), room.begin(), room.end());
    frame.at = static_cast<std::size_t>(found - frame.bytes.begin());
    return frame;
}

// The whole agent, in this process, with a directory in which Ann has a password.
class AgentMemory : public ::testing::Test {
  protected:
    void serve(const std::string& hash) {
        m_directory = std::make_unique<TestDirectory>(
            units() + person("Ann", "ann", 1001, "userPassword: {CRYPT}" + hash + "\n"));
        m_service = std::make_unique<Service>(**m_directory, vorn::systemTime);
        m_pool = std::make_unique<WorkerPool>(2);
        m_server = std::make_unique<Server>(m_io, *m_service, *m_pool, ServerOptions{});
        m_file = std::make_unique<SocketFile>(SocketOptions{path(), 0600});
        m_server->listen(m_file->release());
        m_thread = std::thread([this] { m_io.run(); });
        connect();
    }
    ~AgentMemory() override {
        if (m_client >= 0) ::close(m_client);
        if (!m_thread.joinable()) return;
        boost::asio::post(m_io, [this] { m_server->stop([] {}); });
        m_thread.join();
        m_pool->waitIdle(std::chrono::seconds(20));
    }

    std::string path() const { return m_folder.file("s"); }

    void connect() {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path().copy(address.sun_path, path().size());
        m_client = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_EQ(::connect(m_client, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        receive(wire::kGreetingBytes);
    }

    Bytes receive(std::size_t size) const {
        Bytes bytes(size);
        const ssize_t got = ::recv(m_client, bytes.data(), size, MSG_WAITALL);
        bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
        return bytes;
    }

    // Sends the log-in without its last bytes; nothing is left of what was sent.
    void send(const std::string& user, const Disguised& secret, std::size_t without = 0) const {
        LoginFrame frame = loginFrame(user, secret.size());
        secret.reveal(frame.bytes.data() + frame.at);
        const auto size = frame.bytes.size() - without;
        EXPECT_EQ(::send(m_client, frame.bytes.data(), size, MSG_NOSIGNAL), static_cast<ssize_t>(size));
        explicit_bzero(frame.bytes.data(), frame.bytes.size());
    }

    int login(const std::string& user, const Disguised& secret) const {
        send(user, secret);
        Bytes frame = receive(wire::kLengthBytes);
        std::size_t length = 0;
        for (std::size_t i = frame.size(); i-- > 0;) length = length << 8 | frame[i];
        const Bytes body = receive(length);
        frame.insert(frame.end(), body.begin(), body.end());
        return readReply(frame).code;
    }

    // Ends the connection and waits until the agent has seen it.
    void hangUp() {
        ::close(m_client);
        m_client = -1;
        for (std::size_t left = 1; left != 0;) {
            std::promise<std::size_t> count;
            boost::asio::post(m_io, [&] { count.set_value(m_server->connections()); });
            left = count.get_future().get();
        }
    }

    TemporaryFolder m_folder;
    MemoryScan m_scan;
    std::unique_ptr<TestDirectory> m_directory;
    std::unique_ptr<Service> m_service;
    std::unique_ptr<WorkerPool> m_pool;
    boost::asio::io_context m_io{1};
    std::unique_ptr<Server> m_server;
    std::unique_ptr<SocketFile> m_file;
    std::thread m_thread;
    int m_client = -1;
};

constexpr char kAnn[] = "EXAMPLE\\ann";

TEST_F(AgentMemory, TheScanFindsWhatIsThere) {
    const Disguised secret(16);
    EXPECT_EQ(m_scan.count(secret), 0);
    std::vector<char> copy(16);
    secret.reveal(copy.data());
    EXPECT_EQ(m_scan.count(secret), 1);
    explicit_bzero(copy.data(), copy.size());
}

class PasswordOfSize : public AgentMemory, public ::testing::WithParamInterface<std::size_t> {};

TEST_P(PasswordOfSize, LeavesNothing) {
    const Disguised secret(GetParam());
    serve(hashOf(secret));
    EXPECT_EQ(m_scan.count(secret), 0) << "the test's own";
    EXPECT_EQ(login(kAnn, secret), VEX_OK);
    EXPECT_EQ(m_scan.count(secret), 0) << "right";
    const Disguised wrong(GetParam());
    EXPECT_EQ(login(kAnn, wrong), VEX_WRONG_PASSWORD);
    EXPECT_EQ(m_scan.count(wrong), 0) << "wrong";
    EXPECT_EQ(login("EXAMPLE\\nobody", wrong), VEX_NO_SUCH_USER);
    EXPECT_EQ(m_scan.count(wrong), 0) << "of an unknown user";
}

// Short ones live in a string's own buffer, long ones on the heap; the hash takes
// those of more than 64 bytes in blocks.
INSTANTIATE_TEST_SUITE_P(Each, PasswordOfSize, ::testing::Values(12, 15, 16, 48, 120, 500));

// Longer than crypt(3) reads, and than what is received at a time.
TEST_F(AgentMemory, KeepsNoPasswordThatIsTooLong) {
    serve(hashOf(Disguised(12)));
    for (const std::size_t size : {600, 70'000}) {
        const Disguised secret(size);
        EXPECT_EQ(login(kAnn, secret), VEX_WRONG_PASSWORD);
        EXPECT_EQ(m_scan.count(secret), 0) << size;
    }
}

TEST_F(AgentMemory, KeepsNothingOfARequestThatIsCutShort) {
    serve(hashOf(Disguised(12)));
    const Disguised secret(48);
    send(kAnn, secret, 1);
    hangUp();
    EXPECT_EQ(m_scan.count(secret), 0);
}

}  // namespace
}  // namespace vexagent
