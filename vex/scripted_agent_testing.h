// SPDX-License-Identifier: Apache-2.0
// An agent for tests: it speaks the protocol in this process, on a socket in a
// folder of its own, and misbehaves as told.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "vex/protocol_generated.h"

namespace vextest {

using AttributeList = std::vector<std::pair<std::string, std::vector<std::string>>>;

// A person named so, with all that an object must carry.
AttributeList person(const std::string& name);

// The bytes of a wire::Object.
std::string packed(const AttributeList& attributes);

// What a response says.
struct Reply {
    int code = 0;
    std::vector<std::string> objects = {};  // packed
    std::uint64_t search = 0;
    int total = 0;
    std::vector<std::string> names = {};
    int condition = 0;
    int errSystem = 0;  // 0: no error is told
    int errCode = 0;
    std::string errText = {};
};

// The bytes of a wire::Response, and a frame of any bytes.
std::string response(std::uint64_t id, const Reply& reply);
std::string frame(const std::string& bytes);

// One client's connection, as the agent has it.
class Peer {
  public:
    explicit Peer(int descriptor) : m_descriptor(descriptor) {}

    void send(const std::string& bytes) const;
    void sendInPieces(const std::string& bytes) const;  // a byte at a time
    void answer(const vex::wire::Request& request, const Reply& reply) const {
        send(frame(response(request.id(), reply)));
    }
    void hangUp() const;       // both ways
    void stopReading() const;  // what the client sends is refused, without its seeing it before
    void waitUntilClientGone() const;

  private:
    const int m_descriptor;
};

class ScriptedAgent {
  public:
    using Handler = std::function<void(const Peer&, const vex::wire::Request&)>;

    // Listens, and has the settings of this process name the socket, with a
    // timeout of so many seconds.
    explicit ScriptedAgent(int timeoutSeconds = 1);
    ~ScriptedAgent();
    ScriptedAgent(const ScriptedAgent&) = delete;
    ScriptedAgent& operator=(const ScriptedAgent&) = delete;

    // What is done with each request; at first nothing.
    void onRequest(Handler handler);
    // What is sent to a new connection instead of the greeting.
    void greetWith(const std::string& bytes);
    // Sends the bytes on each open connection; how many there are.
    std::size_t tellAll(const std::string& bytes) const;

    // Ends the listening and all connections; start begins anew on the same path.
    void stop();
    void start();
    // Accepts nobody, with a queue that holds no more than one connection.
    void startDeaf();

    int connections() const { return m_accepted; }  // accepted so far
    int openConnections() const { return m_open; }
    int requests() const { return m_requests; }  // received so far
    std::vector<std::string> bodies() const;     // the kinds of the requests received
    const std::string& socketPath() const { return m_path; }

    // Waits until the condition holds, at most some seconds; whether it did.
    static bool eventually(const std::function<bool()>& condition);

  private:
    void listen(int backlog);
    void accept();
    void serve(int descriptor);
    bool readRequest(int descriptor, std::string& bytes) const;

    std::string m_folder;
    std::string m_path;
    int m_listener = -1;
    std::thread m_acceptor;
    std::atomic<int> m_accepted{0};
    std::atomic<int> m_open{0};
    std::atomic<int> m_requests{0};

    mutable std::mutex m_lock;
    Handler m_handler;                  // guarded by m_lock
    std::string m_greeting;             // guarded by m_lock
    std::vector<std::string> m_bodies;  // guarded by m_lock
    std::list<int> m_descriptors;       // guarded by m_lock
    std::condition_variable m_ended;    // a connection has
};

}  // namespace vextest
