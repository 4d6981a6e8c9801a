// SPDX-License-Identifier: Apache-2.0
#include "vex/exchange.h"

#include "vex/closings.h"
#include "vex/object.h"
#include "vex/wire.h"

namespace vex {
namespace {

// Offsets may be shared, so that a small frame can claim any amount of objects
// and names. An honest one holds each of them once.
bool areObjectsSound(const wire::Response& response, std::size_t frameBytes) {
    if (!response.objects()) return true;
    if (response.objects()->size() > wire::kBatchObjects) return false;
    std::size_t bytesLeft = frameBytes;
    for (const wire::PackedObject* packed : *response.objects()) {
        const auto* bytes = packed->bytes();
        if (bytes->size() > bytesLeft) return false;
        bytesLeft -= bytes->size();
        if (!isSoundObject({bytes->data(), bytes->size()})) return false;
    }
    return true;
}

bool areNamesSound(const wire::Response& response, std::size_t frameBytes) {
    if (!response.names()) return true;
    std::size_t bytesLeft = frameBytes;
    for (const flatbuffers::String* name : *response.names()) {
        if (name->size() >= bytesLeft) return false;
        bytesLeft -= name->size() + 1;
    }
    return true;
}

}  // namespace

bool isSoundResponse(std::span<const std::uint8_t> bytes) {
    flatbuffers::Verifier::Options limits;
    limits.max_depth = wire::kMaxDepth;
    limits.max_tables = wire::kMaxTables;
    limits.check_nested_flatbuffers = false;  // looked at below, where their sum is bounded first
    flatbuffers::Verifier verifier(bytes.data(), bytes.size(), limits);
    if (!verifier.VerifyBuffer<wire::Response>(wire::kResponseIdentifier)) return false;
    const wire::Response& response = *flatbuffers::GetRoot<wire::Response>(bytes.data());
    return areObjectsSound(response, bytes.size()) && areNamesSound(response, bytes.size());
}

Exchange::~Exchange() {
    if (m_connection && m_inOrder) Pool::process().give(std::move(m_connection));
}

void Exchange::connect() {
    m_connection = Connection::open(m_endpoint, m_deadline);
}

// Whether there is a connection, and one to the right agent; one to another
// agent is in order and kept, only not for this request.
bool Exchange::isUsable() {
    if (!m_connection) return false;
    if (m_expectedAgent != 0 && !m_connection->awaitGreeting(m_deadline)) return false;
    m_inOrder = !isRightAgent();
    return !m_inOrder;
}

// Sends on a kept connection or a new one. When its agent goes away between the look and
// the sending, it takes no byte: then a new one is tried, once. An agent that ends is
// followed by another one, which greets whoever waits in the socket.
bool Exchange::send(const Request& request) {
    m_connection = Pool::process().take(m_endpoint.path);
    if (!m_connection) connect();
    if (!isUsable()) return false;
    Sent sent = m_connection->send(request.bytes(), m_deadline);
    if (sent == Sent::Nothing) {
        connect();
        if (!isUsable()) return false;
        sent = m_connection->send(request.bytes(), m_deadline);
    }
    return sent == Sent::Whole;
}

const wire::Response* Exchange::ask(const Request& request) {
    if (!send(request)) return nullptr;
    const auto bytes = m_connection->receive(m_deadline);
    if (bytes.empty() || !isSoundResponse(bytes)) return nullptr;
    const auto* response = flatbuffers::GetRoot<wire::Response>(bytes.data());
    if (response->id() != request.id() || response->code() < VEX_OK) return nullptr;
    m_inOrder = true;
    tellClosings();
    return response;
}

bool Exchange::tell(const Request& request) {
    m_connection = Pool::process().take(m_endpoint.path);
    m_inOrder = m_connection != nullptr;
    if (!m_inOrder || !m_connection->greeted() || !isRightAgent()) return false;
    const Sent sent = m_connection->send(request.bytes(), m_deadline.atMost(Milliseconds(0)));
    m_inOrder = sent != Sent::Partly;
    return sent == Sent::Whole;
}

// The agent has just answered: it reads, and what it is told now is soon read.
void Exchange::tellClosings() {
    for (const std::uint64_t search : Closings::process().take(agent())) {
        Request request;
        request.finish(Options(), wire::CreateSearchClose(request.builder(), search));
        if (m_inOrder) m_inOrder = m_connection->send(request.bytes(), m_deadline) == Sent::Whole;
        if (!m_inOrder) Closings::process().add(agent(), search);
    }
}

}  // namespace vex
