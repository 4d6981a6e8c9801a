// SPDX-License-Identifier: Apache-2.0
// The sockets of this process.
//
// A child that is forked shares its parent's descriptors. Were both to speak on
// one connection, their answers would be mixed up; and as long as the child
// lived, the agent would not see that the parent has gone. So every socket is
// entered in a table, and a child closes them all as its first act.
#pragma once

#include <cstddef>
#include <mutex>

namespace vex {

// Held while a fork happens: whatever it guards is whole in the child.
std::mutex& forkLock();

// Grows by one in a child: what was made under another number is the parent's.
unsigned generation();

// How many sockets this process has open.
std::size_t openSockets();

// A Unix stream socket that is closed on exec and in a forked child. It belongs
// to one thread at a time.
class Socket {
  public:
    Socket();  // descriptor() is -1 when none can be had
    // Takes over one that is open.
    explicit Socket(int descriptor);
    ~Socket();
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int descriptor() const { return m_descriptor; }
    bool inherited() const { return m_generation != generation(); }

  private:
    void enter(int descriptor);

    int m_descriptor = -1;
    unsigned m_generation = 0;
};

}  // namespace vex
