#include "agent/connection.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>

#include "agent/log.h"
#include "vorn/secret.h"

namespace vexagent {
namespace {

namespace asio = boost::asio;
namespace wire = vex::wire;
using boost::system::error_code;

// So much is read, or written, at a time: a length is a claim until the bytes
// are there.
constexpr std::size_t kStep = 65536;

void wipe(Bytes& bytes) {
    if (!bytes.empty()) vorn::wipe(bytes.data(), bytes.size());
    bytes.clear();
}

Bytes greeting() {
    Bytes bytes(std::begin(wire::kMagic), std::end(wire::kMagic));
    for (int shift = 0; shift < 32; shift += 8)
        bytes.push_back(static_cast<std::uint8_t>(wire::kVersion >> shift));
    return bytes;
}

}  // namespace

Connection::Connection(Socket socket, const Client& client, const Shared& shared)
    : m_socket(std::move(socket)), m_timer(shared.io), m_client(client), m_shared(shared) {}

// A request that nobody has worked on may hold a password.
Connection::~Connection() {
    wipe(m_request);
}

void Connection::start() {
    m_shared.service.connected(m_client);
    m_busy = true;
    m_output = greeting();
    write();
}

void Connection::finish() {
    m_lastOne = true;
    if (!m_busy) close();
}

void Connection::close() {
    if (m_closed) return;
    m_closed = true;
    m_timer.cancel();
    error_code ignored;
    m_socket.close(ignored);
    if (!m_busy) wipe(m_request);  // else it is the worker's, which wipes it
    m_shared.service.disconnected(m_client);
    m_shared.closed(shared_from_this());
}

void Connection::setDeadline(std::chrono::milliseconds time) {
    m_timer.expires_after(time);
    m_timer.async_wait([self = shared_from_this()](const error_code& error) {
        // A wait that was put off meanwhile may have been due already.
        if (!error && self->m_timer.expiry() <= std::chrono::steady_clock::now()) self->close();
    });
}

void Connection::waitForRequest() {
    m_busy = false;
    if (m_lastOne) return close();
    setDeadline(m_shared.idle);
    m_socket.async_wait(Socket::wait_read, [self = shared_from_this()](const error_code& error) {
        if (self->m_closed) return;
        if (error) return self->close();
        self->readLength();
    });
}

void Connection::readLength() {
    setDeadline(m_shared.timeout);
    asio::async_read(
        m_socket, asio::buffer(m_length), [self = shared_from_this()](const error_code& error, std::size_t) {
            if (self->m_closed) return;
            if (error) return self->close();
            self->m_expected = 0;
            for (std::size_t i = wire::kLengthBytes; i-- > 0;)
                self->m_expected = self->m_expected << 8 | self->m_length[i];
            if (self->m_expected == 0 || self->m_expected > wire::kMaxRequestBytes) {
                AGENT_LOG(vorn::Logger::kWarning, "refused a frame of %zu bytes from pid %d uid %u",
                          self->m_expected, static_cast<int>(self->m_client.pid),
                          static_cast<unsigned>(self->m_client.uid));
                return self->close();
            }
            self->readBody();
        });
}

// Makes room for the next step. A longer buffer is filled by hand, so that the
// shorter one, which may hold a password, is wiped.
bool Connection::grow() {
    const std::size_t have = m_request.size();
    if (have == m_expected) return false;
    Bytes longer(std::min(m_expected, have + std::max(have, kStep)));
    std::copy(m_request.begin(), m_request.end(), longer.begin());
    wipe(m_request);
    m_request = std::move(longer);
    return true;
}

void Connection::readBody() {
    const std::size_t have = m_request.size();
    if (!grow()) return process();
    const auto room = asio::buffer(m_request.data() + have, m_request.size() - have);
    asio::async_read(m_socket, room, [self = shared_from_this()](const error_code& error, std::size_t) {
        if (self->m_closed) return wipe(self->m_request);
        if (error) return self->close();
        self->readBody();
    });
}

void Connection::process() {
    m_timer.cancel();
    const wire::Request* request = readRequest(m_request);
    if (request == nullptr) {
        AGENT_LOG(vorn::Logger::kWarning, "refused a malformed request of pid %d uid %u",
                  static_cast<int>(m_client.pid), static_cast<unsigned>(m_client.uid));
        return close();
    }
    m_busy = true;
    if (!Service::isKnown(*request)) m_lastOne = true;  // and is answered so
    const Lane lane = m_shared.service.lane(*request);
    m_shared.pool.post(lane, [self = shared_from_this()]() mutable {
        Connection& connection = *self;
        connection.work();
        // The connection goes on, and may end, in the I/O thread only.
        asio::post(connection.m_shared.io, [self = std::move(self)] {
            if (self->m_closed) return;
            self->m_output.empty() ? self->waitForRequest() : self->write();
        });
    });
}

// In a worker.
void Connection::work() {
    std::optional<Bytes> frame = m_shared.service.handle(m_client, *readRequest(m_request));
    wipe(m_request);
    m_output = frame ? std::move(*frame) : Bytes();
    m_written = 0;
}

void Connection::write() {
    setDeadline(m_shared.timeout);
    const std::size_t size = std::min(m_output.size() - m_written, kStep);
    asio::async_write(m_socket, asio::buffer(m_output.data() + m_written, size),
                      [self = shared_from_this()](const error_code& error, std::size_t bytes) {
                          if (self->m_closed) return;
                          if (error) return self->close();
                          self->onWritten(bytes);
                      });
}

void Connection::onWritten(std::size_t bytes) {
    m_written += bytes;
    if (m_written < m_output.size()) return write();
    m_output = Bytes();
    m_written = 0;
    waitForRequest();
}

}  // namespace vexagent
