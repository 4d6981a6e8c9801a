// SPDX-License-Identifier: Apache-2.0
// Somebody at a TCP port of loopback who takes one connection, for tests.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <string>
#include <thread>

#include "agent/ad/net/peer.h"
#include "vorn/descriptor.h"

namespace vexagent {

// Reads so many bytes, says something, and hangs up when the test ends.
class ScriptedPeer {
  public:
    ScriptedPeer(std::size_t reads, std::string says)
        : m_reads(reads), m_says(std::move(says)), m_listener(::socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        EXPECT_EQ(::bind(m_listener.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
        EXPECT_EQ(::listen(m_listener.get(), 1), 0);
        EXPECT_EQ(::getsockname(m_listener.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
        m_port = ntohs(address.sin_port);
        m_thread = std::thread([this] { serve(); });
    }
    ~ScriptedPeer() { join(); }
    ScriptedPeer(const ScriptedPeer&) = delete;
    ScriptedPeer& operator=(const ScriptedPeer&) = delete;

    Peer peer() const { return {"127.0.0.1", m_port}; }
    // What it has read, once all is said.
    const std::string& heard() {
        join();
        return m_heard;
    }

  private:
    void serve() {
        const vorn::Descriptor client(::accept(m_listener.get(), nullptr, nullptr));
        m_heard.resize(m_reads);
        const ssize_t got = ::recv(client.get(), m_heard.data(), m_reads, MSG_WAITALL);
        m_heard.resize(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        static_cast<void>(!::send(client.get(), m_says.data(), m_says.size(), MSG_NOSIGNAL));
        ::shutdown(client.get(), SHUT_WR);
        char rest[4096];
        while (::recv(client.get(), rest, sizeof rest, 0) > 0) continue;
    }
    void join() {
        if (!m_thread.joinable()) return;
        ::shutdown(m_listener.get(), SHUT_RDWR);  // nobody more is waited for
        m_thread.join();
    }

    const std::size_t m_reads;
    const std::string m_says;
    const vorn::Descriptor m_listener;
    std::uint16_t m_port = 0;
    std::string m_heard;
    std::thread m_thread;
};

}  // namespace vexagent
