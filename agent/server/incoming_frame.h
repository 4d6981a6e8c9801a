// SPDX-License-Identifier: Apache-2.0
// One request's frame, as it comes in piece by piece.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "vex/wire.h"
#include "vorn/secret.h"

namespace vexagent {

// Takes what a socket has and never waits. Its buffer grows with what is really there: a
// length is a claim until the bytes have come. What is left of a frame is wiped: it may
// hold a password. For one thread at a time.
class IncomingFrame {
  public:
    enum class Progress {
        Whole,     // bytes() is the frame
        Partly,    // the rest is still to come
        Ended,     // nothing more will come
        Broken,    // the same, and what the client was sent it has not all read
        BadLength  // no frame has length() bytes
    };

    IncomingFrame() = default;
    IncomingFrame(const IncomingFrame&) = delete;
    IncomingFrame& operator=(const IncomingFrame&) = delete;

    // Takes what has come on this non-blocking read of the descriptor.
    Progress read(int socket);

    // Whether some of it is there.
    bool begun() const { return m_haveLength > 0; }
    // What its length says; 0 until that is known.
    std::size_t length() const { return m_expected; }
    // The frame behind its length, once it is whole.
    std::span<const std::uint8_t> bytes() const {
        return {reinterpret_cast<const std::uint8_t*>(m_bytes.text().data()), m_bytes.size()};
    }

    // Forgets it. The next read begins another frame.
    void clear();

  private:
    Progress receive(int socket, void* place, std::size_t size, std::size_t& have);
    Progress readLength(int socket);
    bool grow();

    std::array<std::uint8_t, vex::wire::kLengthBytes> m_length{};
    std::size_t m_haveLength = 0;  // bytes of it that are there
    std::size_t m_expected = 0;
    vorn::Secret m_bytes;
    std::size_t m_have = 0;
};

}  // namespace vexagent
