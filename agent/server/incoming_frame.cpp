// SPDX-License-Identifier: Apache-2.0
#include "agent/server/incoming_frame.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

namespace vexagent {
namespace {

namespace wire = vex::wire;

// So much is made room for at a time, at least.
constexpr std::size_t kReadStep = 65536;

// A call that does not wait, and so is not interrupted, has failed.
IncomingFrame::Progress afterFailure(int error) {
    if (error == EAGAIN) return IncomingFrame::Progress::Partly;
    return error == ECONNRESET ? IncomingFrame::Progress::Broken : IncomingFrame::Progress::Ended;
}

}  // namespace

void IncomingFrame::clear() {
    m_bytes.clear();
    m_haveLength = m_expected = m_have = 0;
}

// Reads until there are so many bytes.
IncomingFrame::Progress IncomingFrame::receive(int socket, void* place, std::size_t size, std::size_t& have) {
    while (have < size) {
        const ssize_t got = ::recv(socket, static_cast<char*>(place) + have, size - have, MSG_DONTWAIT);
        if (got == 0) return Progress::Ended;
        if (got < 0) return afterFailure(errno);
        have += static_cast<std::size_t>(got);
    }
    return Progress::Whole;
}

IncomingFrame::Progress IncomingFrame::readLength(int socket) {
    if (m_haveLength == m_length.size()) return Progress::Whole;
    const Progress progress = receive(socket, m_length.data(), m_length.size(), m_haveLength);
    if (progress != Progress::Whole) return progress;
    for (std::size_t i = wire::kLengthBytes; i-- > 0;) m_expected = m_expected << 8 | m_length[i];
    return m_expected > 0 && m_expected <= wire::kMaxRequestBytes ? Progress::Whole : Progress::BadLength;
}

// Makes room for the next step.
bool IncomingFrame::grow() {
    const std::size_t have = m_bytes.size();
    if (have == m_expected) return false;
    m_bytes.resize(std::min(m_expected, have + std::max(have, kReadStep)));
    return true;
}

IncomingFrame::Progress IncomingFrame::read(int socket) {
    Progress progress = readLength(socket);
    while (progress == Progress::Whole) {
        progress = receive(socket, m_bytes.data(), m_bytes.size(), m_have);
        if (progress == Progress::Whole && !grow()) break;
    }
    return progress;
}

}  // namespace vexagent
