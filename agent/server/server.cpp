// SPDX-License-Identifier: Apache-2.0
#include "agent/server/server.h"

#include <sys/socket.h>

#include <cerrno>
#include <new>
#include <vector>

#include "agent/directory/log.h"
#include "vorn/descriptor.h"

namespace vexagent {
namespace {

using boost::system::error_code;

constexpr std::chrono::milliseconds kAcceptPause{100};

// The process at the other end, as the kernel recorded it at connect time.
bool peerOf(int descriptor, Client& client) {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (::getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return false;
    client = {credentials.pid, credentials.uid};
    return true;
}

}  // namespace

Server::Server(boost::asio::io_context& io, Service& service, WorkerPool& pool, const ServerOptions& options)
    : m_shared{io,
               service,
               pool,
               vorn::systemSteadyClock(),
               options.timeout,
               options.idle,
               [this](const std::shared_ptr<Connection>& connection) { onClosed(connection); }},
      m_sweepEvery(options.sweepEvery),
      m_shares(options.maxClients),
      m_acceptor(io),
      m_acceptTimer(io),
      m_sweepTimer(io) {}

void Server::listen(int descriptor) {
    m_acceptor.assign(boost::asio::local::stream_protocol(), descriptor);
    m_acceptor.native_non_blocking(true);
    accept();
    sweep();
}

// By hand, so that one who cannot be accepted does not end the accepting.
void Server::accept() {
    m_acceptor.async_wait(Socket::wait_read, inRoom(m_acceptRoom, [this](const error_code& error) {
                              if (m_stopping) return;
                              !error&& acceptOne() ? accept() : waitToAccept();
                          }));
}

// False when there is no descriptor for the next client. One for whom there is no memory
// is turned away.
bool Server::acceptOne() try {
    vorn::Descriptor accepted(::accept4(m_acceptor.native_handle(), nullptr, nullptr, SOCK_CLOEXEC));
    if (accepted.get() < 0) return errno == EAGAIN;  // another agent has taken the client
    Socket socket(m_shared.io);
    error_code error;
    socket.assign(boost::asio::local::stream_protocol(), accepted.get(), error);
    if (error) return false;
    accepted.release();
    admit(std::move(socket));
    return true;
} catch (const std::bad_alloc&) {
    return true;
}

// Trying again at once would only burn time, unless there is no memory to wait with.
void Server::waitToAccept() try {
    m_acceptTimer.expires_after(kAcceptPause);
    m_acceptTimer.async_wait(inRoom(m_acceptRoom, [this](const error_code& error) {
        if (!error && !m_stopping) accept();
    }));
} catch (const std::bad_alloc&) {
    accept();
}

void Server::admit(Socket socket) {
    Client client;
    if (!peerOf(socket.native_handle(), client)) return;
    if (!m_shares.hasPlaceFor(client) && !makeRoom(client)) {
        AGENT_LOG(vorn::Logger::kWarning, "refused a connection of pid %d uid %u: %zu are open",
                  static_cast<int>(client.pid), static_cast<unsigned>(client.uid), m_connections.size());
        return;
    }
    const auto connection = std::make_shared<Connection>(std::move(socket), client, m_shared);
    add(connection);
    connection->start();
}

void Server::add(const std::shared_ptr<Connection>& connection) {
    const auto place = m_connections.insert(connection).first;
    try {
        m_shares.add(connection->client());
    } catch (...) {
        m_connections.erase(place);
        throw;
    }
}

// Ends the connection that has waited for its client longest, of the one who holds most:
// a client finds that out before it sends, and connects anew. What is being worked on is
// worked on.
bool Server::makeRoom(const Client& newcomer) {
    std::shared_ptr<Connection> last;
    for (const auto& connection : m_connections) {
        if (connection->isAtWork() || !m_shares.mayTake(newcomer, connection->client())) continue;
        if (!last || m_shares.holdsMore(connection->client(), last->client()) ||
            (!m_shares.holdsMore(last->client(), connection->client()) &&
             connection->deadline() < last->deadline()))
            last = connection;
    }
    if (last) last->drop();
    return last != nullptr;
}

void Server::sweep() {
    m_sweepTimer.expires_after(m_sweepEvery);
    m_sweepTimer.async_wait([this](const error_code& error) {
        if (error || m_stopping) return;
        sweep();
        m_shared.service.expireSearches();
    });
}

void Server::onClosed(const std::shared_ptr<Connection>& connection) {
    m_connections.erase(connection);
    m_shares.remove(connection->client());
    if (m_connections.empty() && m_stopped) m_stopped();
}

void Server::stop(std::function<void()> stopped) {
    m_stopping = true;
    m_stopped = std::move(stopped);
    error_code ignored;
    m_acceptor.close(ignored);
    m_acceptTimer.cancel();
    m_sweepTimer.cancel();
    const std::vector<std::shared_ptr<Connection>> connections(m_connections.begin(), m_connections.end());
    if (connections.empty()) m_stopped();
    for (const auto& connection : connections) connection->finish();
}

}  // namespace vexagent
