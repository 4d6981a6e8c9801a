// SPDX-License-Identifier: Apache-2.0
#include "vex/scripted_agent_testing.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "vex/wire.h"
#include "vorn/settings.h"

namespace vextest {
namespace {

namespace wire = vex::wire;
using flatbuffers::FlatBufferBuilder;

std::string bytesOf(const FlatBufferBuilder& builder) {
    return {reinterpret_cast<const char*>(builder.GetBufferPointer()), builder.GetSize()};
}

std::string greeting() {
    std::uint8_t version[4];
    flatbuffers::WriteScalar(version, wire::kVersion);
    return std::string(wire::kMagic, sizeof wire::kMagic) +
           std::string(reinterpret_cast<const char*>(version), sizeof version);
}

// So that a long test does not grow by what it remembers.
constexpr std::size_t kRemembered = 64;

bool readExactly(int descriptor, char* place, std::size_t size) {
    while (size > 0) {
        const ssize_t got = ::recv(descriptor, place, size, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        place += got;
        size -= static_cast<std::size_t>(got);
    }
    return true;
}

}  // namespace

AttributeList person(const std::string& name) {
    return {{"_dn", {"CN=" + name + ",CN=Users,DC=example,DC=com"}},
            {"_GUID", {"00000000-0000-0000-0000-0000" + std::string(8, '0')}},
            {"_objectCategory", {"Person"}},
            {"cn", {name}},
            {"sAMAccountName", {name}}};
}

std::string packed(const AttributeList& attributes) {
    FlatBufferBuilder builder;
    std::vector<flatbuffers::Offset<wire::Attribute>> offsets;
    for (const auto& [name, values] : attributes) {
        const auto nameText = builder.CreateString(name);
        offsets.push_back(wire::CreateAttribute(builder, nameText, builder.CreateVectorOfStrings(values)));
    }
    builder.Finish(wire::CreateObject(builder, builder.CreateVector(offsets)));
    return bytesOf(builder);
}

std::string response(std::uint64_t id, const Reply& reply) {
    FlatBufferBuilder builder;
    std::vector<flatbuffers::Offset<wire::PackedObject>> objects;
    for (const std::string& object : reply.objects) {
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(object.data());
        builder.ForceVectorAlignment(object.size(), 1, 8);
        objects.push_back(wire::CreatePackedObject(builder, builder.CreateVector(bytes, object.size())));
    }
    const auto objectList = builder.CreateVector(objects);
    const auto names = builder.CreateVectorOfStrings(reply.names);
    flatbuffers::Offset<wire::Error> error;
    if (reply.errSystem != 0) {
        flatbuffers::Offset<flatbuffers::String> text;
        if (!reply.errText.empty()) text = builder.CreateString(reply.errText);
        error = wire::CreateError(builder, reply.errSystem, reply.errCode, text);
    }
    builder.Finish(wire::CreateResponse(builder, id, reply.code, error, objectList, reply.search, reply.total,
                                        names, reply.condition),
                   wire::kResponseIdentifier);
    return bytesOf(builder);
}

std::string frame(const std::string& bytes) {
    std::uint8_t length[wire::kLengthBytes];
    flatbuffers::WriteScalar(length, static_cast<std::uint32_t>(bytes.size()));
    return std::string(reinterpret_cast<const char*>(length), sizeof length) + bytes;
}

void Peer::send(const std::string& bytes) const {
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t sent = ::send(m_descriptor, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent < 0) return;
        done += static_cast<std::size_t>(sent);
    }
}

void Peer::sendInPieces(const std::string& bytes) const {
    for (const char byte : bytes) send(std::string(1, byte));
}

void Peer::hangUp() const {
    ::shutdown(m_descriptor, SHUT_RDWR);
}
void Peer::stopReading() const {
    ::shutdown(m_descriptor, SHUT_RD);
}

void Peer::waitUntilClientGone() const {
    pollfd peer = {m_descriptor, POLLRDHUP, 0};
    while (::poll(&peer, 1, 30'000) < 0 && errno == EINTR) {
    }
}

ScriptedAgent::ScriptedAgent(int timeoutSeconds) : m_greeting(greeting()) {
    std::string folder = (std::filesystem::temp_directory_path() / "vex-test-XXXXXX").string();
    if (!::mkdtemp(folder.data())) throw std::runtime_error("mkdtemp");
    m_folder = folder;
    m_path = folder + "/agent.sock";
    std::ofstream settings(folder + "/zanthe.conf");
    settings << "agent.socket = " << m_path << "\nagent.timeout = " << timeoutSeconds << "\n";
    settings.close();
    ::setenv("ZANTHE_CONF", (folder + "/zanthe.conf").c_str(), 1);
    vorn::Props(true, true);
    start();
}

ScriptedAgent::~ScriptedAgent() {
    stop();
    std::error_code ignored;
    std::filesystem::remove_all(m_folder, ignored);
}

void ScriptedAgent::onRequest(Handler handler) {
    std::lock_guard guard(m_lock);
    m_handler = std::move(handler);
}

void ScriptedAgent::greetWith(const std::string& bytes) {
    std::lock_guard guard(m_lock);
    m_greeting = bytes;
}

std::size_t ScriptedAgent::tellAll(const std::string& bytes) const {
    std::lock_guard guard(m_lock);
    for (const int descriptor : m_descriptors) Peer(descriptor).send(bytes);
    return m_descriptors.size();
}

std::vector<std::string> ScriptedAgent::bodies() const {
    std::lock_guard guard(m_lock);
    return m_bodies;
}

void ScriptedAgent::listen(int backlog) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    m_path.copy(address.sun_path, sizeof address.sun_path - 1);
    ::unlink(m_path.c_str());
    m_listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_listener < 0 || ::bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(m_listener, backlog) != 0)
        throw std::runtime_error("cannot listen on " + m_path);
}

void ScriptedAgent::start() {
    listen(64);
    m_acceptor = std::thread(&ScriptedAgent::accept, this);
}

void ScriptedAgent::startDeaf() {
    listen(0);
}

void ScriptedAgent::stop() {
    if (m_listener >= 0) ::shutdown(m_listener, SHUT_RDWR);
    if (m_acceptor.joinable()) m_acceptor.join();
    {
        std::unique_lock guard(m_lock);
        for (const int descriptor : m_descriptors) ::shutdown(descriptor, SHUT_RDWR);
        m_ended.wait(guard, [&] { return m_descriptors.empty(); });
    }
    if (m_listener >= 0) ::close(std::exchange(m_listener, -1));
    ::unlink(m_path.c_str());
}

void ScriptedAgent::accept() {
    for (;;) {
        const int descriptor = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (descriptor < 0 && errno == EINTR) continue;
        if (descriptor < 0) return;
        ++m_accepted;
        ++m_open;
        {
            std::lock_guard guard(m_lock);
            m_descriptors.push_back(descriptor);
        }
        std::thread(&ScriptedAgent::serve, this, descriptor).detach();
    }
}

bool ScriptedAgent::readRequest(int descriptor, std::string& bytes) const {
    char length[wire::kLengthBytes];
    if (!readExactly(descriptor, length, sizeof length)) return false;
    bytes.resize(flatbuffers::ReadScalar<std::uint32_t>(length));
    return bytes.size() <= wire::kMaxRequestBytes && readExactly(descriptor, bytes.data(), bytes.size());
}

void ScriptedAgent::serve(int descriptor) {
    const Peer peer(descriptor);
    std::string greetingBytes;
    {
        std::lock_guard guard(m_lock);
        greetingBytes = m_greeting;
    }
    peer.send(greetingBytes);
    std::string bytes;
    while (readRequest(descriptor, bytes)) {
        flatbuffers::Verifier verifier(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
        if (!verifier.VerifyBuffer<wire::Request>(wire::kRequestIdentifier)) break;
        const auto& request = *flatbuffers::GetRoot<wire::Request>(bytes.data());
        Handler handler;
        {
            std::lock_guard guard(m_lock);
            if (m_bodies.size() < kRemembered) m_bodies.push_back(wire::EnumNameBody(request.body_type()));
            handler = m_handler;
        }
        ++m_requests;
        if (handler) handler(peer, request);
        std::fill(bytes.begin(), bytes.end(), '\0');
    }
    std::lock_guard guard(m_lock);
    m_descriptors.remove(descriptor);
    ::close(descriptor);
    --m_open;
    m_ended.notify_all();
}

bool ScriptedAgent::eventually(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace vextest
