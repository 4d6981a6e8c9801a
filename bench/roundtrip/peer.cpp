// SPDX-License-Identifier: Apache-2.0
#include "bench/roundtrip/peer.h"

#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "vex/protocol_generated.h"
#include "vex/wire.h"

namespace roundtrip {

namespace {

namespace wire = vex::wire;

[[noreturn]] void throwSystemError(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

vorn::Descriptor listenOn(const std::string& path) {
    vorn::Descriptor listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = addressOf(path);
    if (::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener.get(), 8) != 0) {
        throwSystemError("listen");
    }
    return listener;
}

std::string greeting() {
    std::string bytes(wire::kMagic, sizeof wire::kMagic);
    std::uint8_t version[4];
    flatbuffers::WriteScalar(version, wire::kVersion);
    return bytes.append(reinterpret_cast<const char*>(version), sizeof version);
}

void serveBytes(int descriptor, const Frames& frames) {
    std::string buffer(frames.request.size(), '\0');
    while (receiveAll(descriptor, &buffer, frames.request.size()) && sendAll(descriptor, frames.response)) {
    }
}

void serveProtocol(int descriptor, const Frames& frames) {
    std::string response = frames.response;
    auto* const table = flatbuffers::GetMutableRoot<flatbuffers::Table>(response.data() + wire::kLengthBytes);
    std::string buffer(wire::kLengthBytes, '\0');
    while (receiveAll(descriptor, &buffer, wire::kLengthBytes)) {
        const auto size = flatbuffers::ReadScalar<std::uint32_t>(buffer.data());
        if (size > wire::kMaxRequestBytes) return;
        if (buffer.size() < size) buffer.resize(size);
        if (!receiveAll(descriptor, &buffer, size)) return;
        const std::uint64_t id = flatbuffers::GetRoot<wire::Request>(buffer.data())->id();
        table->SetField<std::uint64_t>(wire::Response::VT_ID, id, 0);
        if (!sendAll(descriptor, response)) return;
    }
}

[[noreturn]] void serve(int listener, const Frames& frames, Answers answers) {
    for (;;) {
        const vorn::Descriptor client(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
        if (client.get() < 0) ::_exit(1);
        if (!sendAll(client.get(), greeting())) continue;
        answers == Answers::Bytes ? serveBytes(client.get(), frames) : serveProtocol(client.get(), frames);
    }
}

void runOn(int processor) {
    if (processor < 0) return;
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(processor, &set);
    ::sched_setaffinity(0, sizeof set, &set);
}

}  // namespace

Peer::Peer(std::string path, const Frames& frames, Answers answers, int processor) : m_path(std::move(path)) {
    const vorn::Descriptor listener = listenOn(m_path);
    m_process = ::fork();
    if (m_process < 0) throwSystemError("fork");
    if (m_process != 0) return;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    runOn(processor);
    serve(listener.get(), frames, answers);
}

Peer::~Peer() {
    ::kill(m_process, SIGKILL);
    ::waitpid(m_process, nullptr, 0);
    ::unlink(m_path.c_str());
}

vorn::Descriptor connectTo(const std::string& path) {
    vorn::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = addressOf(path);
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throwSystemError("connect");
    }
    std::string buffer(wire::kGreetingBytes, '\0');
    if (!receiveAll(socket.get(), &buffer, buffer.size())) throwSystemError("greeting");
    return socket;
}

bool sendAll(int descriptor, const std::string& bytes) {
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t sent = ::send(descriptor, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (sent <= 0) return false;
        done += static_cast<std::size_t>(sent);
    }
    return true;
}

bool receiveAll(int descriptor, std::string* buffer, std::size_t size) {
    for (std::size_t done = 0; done < size;) {
        const ssize_t got = ::recv(descriptor, buffer->data() + done, size - done, 0);
        if (got <= 0) return false;
        done += static_cast<std::size_t>(got);
    }
    return true;
}

}  // namespace roundtrip
