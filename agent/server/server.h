// SPDX-License-Identifier: Apache-2.0
// The agent's socket: accepting connections and ending them.
//
// One thread, that of the I/O context, does all the I/O; the pool's threads do
// the work. A client that lies, or says nothing, or does not read, costs the
// others nothing. Whom there is no memory for is turned away; those after are not.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <memory>
#include <set>

#include "agent/server/connection.h"
#include "agent/server/shares.h"

namespace vexagent {

struct ServerOptions {
    std::chrono::milliseconds timeout{10'000};  // see Connection::Shared
    std::chrono::milliseconds idle{vex::wire::kSearchIdleSeconds * 1000};
    std::size_t maxClients = 1024;  // connections at once; see Shares
    // How often searches that nobody goes on with are looked for.
    std::chrono::milliseconds sweepEvery{60'000};
};

class Server {
  public:
    Server(boost::asio::io_context& io, Service& service, WorkerPool& pool, const ServerOptions& options);
    // Connections refer to their server, and so does the work that they have
    // given to the pool: a server is destroyed once the pool is idle.
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Accepts connections on a listening Unix socket, which it owns from now on.
    void listen(int descriptor);

    // Accepts no more, ends what is idle, and lets requests at work be answered;
    // then tells that the last connection has ended.
    void stop(std::function<void()> stopped);

    std::size_t connections() const { return m_connections.size(); }

  private:
    using Socket = Connection::Socket;

    void accept();
    bool acceptOne();
    void admit(Socket socket);
    void add(const std::shared_ptr<Connection>& connection);
    bool makeRoom(const Client& newcomer);
    void waitToAccept();
    void sweep();
    void onClosed(const std::shared_ptr<Connection>& connection);

    Connection::Shared m_shared;
    const std::chrono::milliseconds m_sweepEvery;
    Shares m_shares;
    boost::asio::local::stream_protocol::acceptor m_acceptor;
    boost::asio::steady_timer m_acceptTimer;
    HandlerRoom m_acceptRoom;  // for waiting for either
    boost::asio::steady_timer m_sweepTimer;
    std::set<std::shared_ptr<Connection>> m_connections;
    bool m_stopping = false;
    std::function<void()> m_stopped;
};

}  // namespace vexagent
