// SPDX-License-Identifier: Apache-2.0
#include "bench/load/connection.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace load {

namespace {

constexpr std::size_t kReadAtOnce = 256UL * 1024;
constexpr std::size_t kLargestMessage = 64UL * 1024 * 1024;

[[noreturn]] void throwSystemError(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

vorn::Descriptor connectTo(const Plan& plan) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(plan.port);
    if (inet_pton(AF_INET, plan.host.c_str(), &address.sin_addr) != 1) {
        throw std::invalid_argument("not an IPv4 address: " + plan.host);
    }
    vorn::Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (socket.get() < 0) throwSystemError("socket");
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throwSystemError("connect");
    }
    const int on = 1;
    if (::setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0)
        throwSystemError("setsockopt");
    return socket;
}

void setBlocking(int descriptor, bool blocking) {
    const int flags = ::fcntl(descriptor, F_GETFL);
    const int wanted = blocking ? flags & ~O_NONBLOCK : flags | O_NONBLOCK;
    if (flags < 0 || ::fcntl(descriptor, F_SETFL, wanted) != 0) throwSystemError("fcntl");
}

bool wouldBlock() {
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

}  // namespace

Connection::Connection(Shared* shared)
    : m_shared(shared),
      m_socket(connectTo(shared->plan)),
      m_slots(shared->plan.outstanding),
      m_in(kReadAtOnce) {
    for (std::size_t i = m_slots.size(); i > 0; --i) m_idle.push_back(i - 1);
    setBlocking(m_socket.get(), false);
}

void Connection::login(const std::string& dn, const std::string& password) {
    setBlocking(m_socket.get(), true);
    m_out = message(bindRequest(dn, password));
    flush();
    Reply reply;
    std::size_t size = 0;
    while ((size = readMessage({m_in.data(), m_received}, &reply)) == 0) receive();
    if (reply.operation != kBindResponse || resultCode(reply) != 0)
        throw WrongAnswer("the login was refused");
    m_received -= size;
    setBlocking(m_socket.get(), false);
}

std::uint32_t Connection::newId(std::size_t slot) {
    const std::uint32_t generations =
        (kLastMessageId - kFirstMessageId) / static_cast<std::uint32_t>(m_slots.size());
    m_generation = (m_generation + 1) % generations;
    return kFirstMessageId + m_generation * static_cast<std::uint32_t>(m_slots.size()) +
           static_cast<std::uint32_t>(slot);
}

void Connection::fill() {
    std::size_t request = 0;
    while (!m_idle.empty() && m_shared->next(&request)) {
        const std::size_t slot = m_idle.back();
        m_idle.pop_back();
        const std::uint32_t id = newId(slot);
        m_slots[slot] = {id, m_slots[slot].finished, request, 0, Clock::now()};
        m_out += m_shared->requests.message(request, id);
    }
    flush();
}

void Connection::flush() {
    while (!m_out.empty()) {
        const ssize_t sent = ::send(m_socket.get(), m_out.data(), m_out.size(), MSG_NOSIGNAL);
        if (sent < 0) {
            if (wouldBlock()) return;
            throwSystemError("send");
        }
        m_out.erase(0, static_cast<std::size_t>(sent));
    }
}

// Whether anything came.
bool Connection::receive() {
    if (m_received == m_in.size()) {
        if (m_in.size() >= kLargestMessage) throw ProtocolError("a message that is too large");
        m_in.resize(2 * m_in.size());
    }
    const ssize_t got = ::recv(m_socket.get(), m_in.data() + m_received, m_in.size() - m_received, 0);
    if (got == 0) throw WrongAnswer("the server closed the connection");
    if (got < 0) {
        if (wouldBlock()) return false;
        throwSystemError("recv");
    }
    m_received += static_cast<std::size_t>(got);
    m_shared->bytes += static_cast<std::size_t>(got);
    return true;
}

void Connection::onReadable() {
    if (!receive()) return;
    std::string_view rest(m_in.data(), m_received);
    Reply reply;
    while (const std::size_t size = readMessage(rest, &reply)) {
        take(reply);
        rest.remove_prefix(size);
    }
    std::memmove(m_in.data(), rest.data(), rest.size());
    m_received = rest.size();
    fill();
}

void Connection::take(const Reply& reply) {
    const std::size_t index = (reply.id - kFirstMessageId) % m_slots.size();
    Slot& slot = m_slots[index];
    // The gateway ends the last page of a search twice, and clients take the first.
    if (reply.operation == kSearchResultDone && reply.id == slot.finished) return;
    if (slot.id != reply.id || reply.id < kFirstMessageId)
        throw WrongAnswer("an answer to nothing that was asked");
    switch (reply.operation) {
        case kSearchResultEntry:
            takeEntry(reply, &slot);
            break;
        case kSearchResultDone:
        case kBindResponse:
            finish(reply, index);
            break;
        default:
            throw WrongAnswer("an answer of another kind than expected");
    }
}

void Connection::takeEntry(const Reply& reply, Slot* slot) const {
    ++slot->entries;
    ++m_shared->entries;
    if (!m_shared->plan.expectKey) return;
    const std::string& key = m_shared->requests.key(slot->request);
    if (reply.body.find(key) == std::string_view::npos) throw WrongAnswer("an entry without its key " + key);
}

void Connection::finish(const Reply& reply, std::size_t index) {
    const Plan& plan = m_shared->plan;
    const std::uint8_t expected = plan.mode == Mode::Bind ? kBindResponse : kSearchResultDone;
    if (reply.operation != expected) throw WrongAnswer("an answer of another kind than expected");
    const std::uint32_t code = resultCode(reply);
    if (code != plan.expectCode) throw WrongAnswer("the result code " + std::to_string(code));
    const Slot slot = m_slots[index];
    if (plan.mode == Mode::Lookup || plan.mode == Mode::Enumeration) checkEntries(slot.entries);
    m_slots[index].finished = std::exchange(m_slots[index].id, 0);
    m_idle.push_back(index);
    m_shared->done(Clock::now() - slot.sent);
    if (plan.mode == Mode::Paged) nextPage(reply, index);
}

// A search that is read page by page is read to its end, also when no further one is
// wanted: it would stay open at the server.
void Connection::nextPage(const Reply& reply, std::size_t index) {
    const Plan& plan = m_shared->plan;
    const Slot& last = m_slots[index];
    if (last.entries > plan.pageSize)
        throw WrongAnswer("a page of " + std::to_string(last.entries) + " entries");
    m_pagedEntries += last.entries;
    const std::string cookie = pagedCookie(reply);
    if (cookie.empty()) {
        checkEntries(m_pagedEntries);
        m_pagedEntries = 0;
        return;
    }
    m_idle.pop_back();
    std::string page = message(searchRequest(plan.search), pagedControl(plan.pageSize, cookie));
    const std::uint32_t id = newId(index);
    setMessageId(&page, id);
    m_slots[index] = {id, last.finished, last.request, 0, Clock::now()};
    m_out += page;
}

void Connection::checkEntries(std::uint64_t count) const {
    const auto& expected = m_shared->plan.expectEntries;
    if (!expected || *expected == count) return;
    throw WrongAnswer(std::to_string(count) + " entries instead of " + std::to_string(*expected));
}

}  // namespace load
