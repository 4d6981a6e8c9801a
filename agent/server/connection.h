// SPDX-License-Identifier: Apache-2.0
// One client's connection.
//
// It greets, then reads one request at a time, has it worked on, and writes the
// answer before it reads on: a client that sends faster than it reads waits in
// its own socket. All its members are used by the thread of the I/O context;
// while a request is worked on, the frames are the worker's, who writes as much
// of the answer as the socket takes, and nobody else touches the socket. A
// connection for which there is no memory ends, and no other suffers.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <functional>
#include <memory>

#include "agent/server/frames.h"
#include "agent/server/handler_room.h"
#include "agent/server/incoming_frame.h"
#include "agent/server/pool.h"
#include "agent/server/service.h"
#include "vorn/clock.h"

namespace vexagent {

class Connection : public std::enable_shared_from_this<Connection> {
  public:
    using Socket = boost::asio::local::stream_protocol::socket;
    using Closed = std::function<void(const std::shared_ptr<Connection>&)>;

    // What connections share. All of it outlives them.
    struct Shared {
        boost::asio::io_context& io;
        Service& service;
        WorkerPool& pool;
        const vorn::SteadyClock& clock;     // the system's, as the timers have it
        std::chrono::milliseconds timeout;  // for a frame to arrive, or to be taken
        std::chrono::milliseconds idle;     // between two requests
        Closed closed;                      // told once
    };

    Connection(Socket socket, const Client& client, const Shared& shared);

    void start();

    // Ends the connection: now, or when what its client has sent by now is answered.
    void finish();

    // Ends the connection without waiting for its client any longer. Not while it is at
    // work.
    void drop();

    const Client& client() const { return m_client; }
    // Whether a worker has its request.
    bool isAtWork() const { return m_state == State::AtWork; }
    // Until when its client is waited for.
    vorn::Moment deadline() const { return m_deadline; }

  private:
    enum class State {
        Waiting,    // for a request, or the rest of one
        AtWork,     // a worker has the request
        Answering,  // what was answered, or the greeting, is being written
        Closed
    };

    template <typename Step>
    void attempt(Step step);
    void waitForRequest();
    void waitForBytes();
    void onReadable();
    void readLast();
    void process();
    void work();
    void onWorked();
    void sendAtOnce();
    void write();
    void giveUp();
    void close();
    void goOn();
    void setDeadline(std::chrono::milliseconds time);
    void armTimer();

    Socket m_socket;
    boost::asio::steady_timer m_timer;
    HandlerRoom m_workedRoom;                       // for the way back from a worker
    vorn::Moment m_deadline = vorn::Moment::max();  // of what is waited for; the timer may be due earlier
    bool m_armed = false;
    const Client m_client;
    const Shared& m_shared;

    State m_state = State::Answering;
    IncomingFrame m_request;
    const vex::wire::Request* m_read = nullptr;  // what is in it, while it is being worked on
    Bytes m_output;
    std::size_t m_written = 0;   // of it
    std::uint64_t m_search = 0;  // that the last answer leaves open
    bool m_lastOne = false;      // close after the answer
    bool m_unanswered = false;   // there was no memory for the answer; the worker's, as the frames are
    bool m_finishing = false;    // read no more than what has come
};

}  // namespace vexagent
