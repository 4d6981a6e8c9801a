// SPDX-License-Identifier: Apache-2.0
#include "agent/server/connection.h"

#include <sys/socket.h>

#include <algorithm>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <new>

#include "agent/directory/log.h"
#include "vex/wire.h"

namespace vexagent {
namespace {

namespace asio = boost::asio;
namespace wire = vex::wire;
using boost::system::error_code;

// So much is written at a time.
constexpr std::size_t kWriteStep = 65536;

Bytes greeting() {
    Bytes bytes(std::begin(wire::kMagic), std::end(wire::kMagic));
    static_assert(wire::kVersion <= 0xff);  // its lowest byte, which comes first, is all of it
    bytes.push_back(static_cast<std::uint8_t>(wire::kVersion));
    bytes.resize(wire::kGreetingBytes);
    return bytes;
}

}  // namespace

Connection::Connection(Socket socket, const Client& client, const Shared& shared)
    : m_socket(std::move(socket)), m_timer(shared.io), m_client(client), m_shared(shared) {}

// All that the I/O thread does for it comes through here.
template <typename Step>
void Connection::attempt(Step step) {
    try {
        step();
    } catch (const std::bad_alloc&) {
        drop();
    }
}

void Connection::start() {
    attempt([this] {
        m_shared.service.connected(m_client);
        m_output = greeting();
        write();
    });
}

void Connection::finish() {
    m_finishing = true;
    if (m_state == State::Waiting) attempt([this] { readLast(); });
}

// What was sent before now is answered. Who sends from now on is told that nobody reads
// it, and can ask the next agent.
void Connection::readLast() {
    error_code ignored;
    m_socket.shutdown(Socket::shutdown_receive, ignored);
    onReadable();
}

// Not while a worker is at it: nothing but the work's end is waited for then.
void Connection::close() {
    if (m_state == State::Closed) return;
    m_state = State::Closed;
    m_timer.cancel();
    error_code ignored;
    m_socket.close(ignored);
    m_request.clear();
    m_shared.service.disconnected(m_client);
    m_shared.closed(shared_from_this());
}

// The client has gone without the last answer: nobody will ask for the rest of a search
// that only this answer names.
void Connection::giveUp() {
    if (m_state == State::Closed) return;
    m_shared.service.closeSearch(m_client, m_search);
    close();
}

void Connection::drop() {
    m_state == State::Waiting ? close() : giveUp();
}

// A deadline that moves on, as it does with every request, costs nothing: the timer
// finds out when it is due.
void Connection::setDeadline(std::chrono::milliseconds time) {
    m_deadline = m_shared.clock.now() + time;
    if (!m_armed || m_deadline < m_timer.expiry()) armTimer();
}

void Connection::armTimer() {
    m_armed = true;
    m_timer.expires_at(m_deadline);
    m_timer.async_wait([self = shared_from_this()](const error_code& error) {
        if (error || self->m_state == State::Closed) return;  // another wait has taken its place
        self->m_armed = false;
        if (self->m_deadline <= self->m_shared.clock.now()) return self->drop();
        if (self->m_deadline != vorn::Moment::max()) self->attempt([&] { self->armTimer(); });
    });
}

void Connection::waitForRequest() {
    m_state = State::Waiting;
    if (m_lastOne) return close();
    m_request.clear();
    if (m_finishing) return readLast();
    setDeadline(m_shared.idle);
    waitForBytes();
}

void Connection::waitForBytes() {
    m_socket.async_wait(Socket::wait_read, [self = shared_from_this()](const error_code& error) {
        if (self->m_state != State::Waiting) return;  // read by who finishes the connection
        if (error) return self->close();
        self->attempt([&] { self->onReadable(); });
    });
}

// Reads what has come. Mostly that is a whole request, and no clock has to be set.
void Connection::onReadable() {
    const bool begun = m_request.begun();
    switch (m_request.read(m_socket.native_handle())) {
        case IncomingFrame::Progress::Whole:
            return process();
        case IncomingFrame::Progress::Partly:
            // For the whole of it: who sends byte by byte gains no time.
            if (!begun && m_request.begun()) setDeadline(m_shared.timeout);
            return waitForBytes();
        case IncomingFrame::Progress::Ended:
            return close();
        case IncomingFrame::Progress::Broken:
            return giveUp();
        case IncomingFrame::Progress::BadLength:
            AGENT_LOG(vorn::Logger::kWarning, "refused a frame of %zu bytes from pid %d uid %u",
                      m_request.length(), static_cast<int>(m_client.pid),
                      static_cast<unsigned>(m_client.uid));
            return close();
    }
}

void Connection::process() {
    m_deadline = vorn::Moment::max();
    m_read = readRequest(m_request.bytes());
    if (m_read == nullptr) {
        AGENT_LOG(vorn::Logger::kWarning, "refused a malformed request of pid %d uid %u",
                  static_cast<int>(m_client.pid), static_cast<unsigned>(m_client.uid));
        return close();
    }
    if (!Service::isKnown(*m_read)) m_lastOne = true;  // and is answered so
    m_shared.pool.post(m_shared.service.lane(*m_read), [self = shared_from_this()]() mutable {
        Connection& connection = *self;
        connection.work();
        // The connection goes on, and may end, in the I/O thread only.
        asio::post(connection.m_shared.io,
                   inRoom(connection.m_workedRoom, [self = std::move(self)] { self->onWorked(); }));
    });
    m_state = State::AtWork;
}

// In a worker. The client need not wait for the I/O thread to wake up. Where there is no
// memory for an answer, the connection is all that can be ended.
void Connection::work() {
    try {
        if (std::optional<Bytes> frame = m_shared.service.handle(m_client, *m_read))
            m_output = std::move(*frame);
    } catch (const std::bad_alloc&) {
        m_unanswered = true;
    }
    m_request.clear();
    m_search = searchIn(m_output);
    sendAtOnce();
}

// As much as the socket takes. What failed fails once more, in the I/O thread.
void Connection::sendAtOnce() {
    const ssize_t sent =
        ::send(m_socket.native_handle(), m_output.data(), m_output.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    m_written = static_cast<std::size_t>(std::max<ssize_t>(sent, 0));
}

void Connection::onWorked() {
    m_state = State::Answering;
    if (m_unanswered) return close();
    attempt([this] { goOn(); });
}

void Connection::write() {
    setDeadline(m_shared.timeout);
    const std::size_t size = std::min(m_output.size() - m_written, kWriteStep);
    asio::async_write(m_socket, asio::buffer(m_output.data() + m_written, size),
                      [self = shared_from_this()](const error_code& error, std::size_t bytes) {
                          if (self->m_state == State::Closed) return;
                          if (error) return self->giveUp();
                          self->m_written += bytes;
                          self->attempt([&] { self->goOn(); });
                      });
}

void Connection::goOn() {
    if (m_written < m_output.size()) return write();
    m_output = Bytes();
    waitForRequest();
}

}  // namespace vexagent
