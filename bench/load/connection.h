// SPDX-License-Identifier: Apache-2.0
// One connection of a load run.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "bench/load/plan.h"
#include "bench/load/requests.h"
#include "bench/load/run.h"
#include "vorn/descriptor.h"

namespace load {

using Clock = std::chrono::steady_clock;

// What the connections of a run have in common.
struct Shared {
    const Plan& plan;
    Requests& requests;
    // The next request to send, or none when no more are wanted.
    std::function<bool(std::size_t* index)> next;
    // An operation is complete.
    std::function<void(Clock::duration latency)> done;
    std::uint64_t entries = 0;
    std::uint64_t bytes = 0;
};

// Never blocks but in the constructor and login.
class Connection {
  public:
    explicit Connection(Shared* shared);

    // A simple bind, waited for.
    void login(const std::string& dn, const std::string& password);

    // Sends as many requests as may be outstanding.
    void fill();
    // Takes what has arrived, and sends more.
    void onReadable();
    void onWritable() { flush(); }

    int descriptor() const { return m_socket.get(); }
    bool isIdle() const { return m_idle.size() == m_slots.size(); }
    bool wantsToWrite() const { return !m_out.empty(); }

  private:
    // A request that is outstanding.
    struct Slot {
        std::uint32_t id = 0;        // 0: none is
        std::uint32_t finished = 0;  // the id before it
        std::size_t request = 0;
        std::uint64_t entries = 0;
        Clock::time_point sent;
    };

    std::uint32_t newId(std::size_t slot);
    void flush();
    bool receive();
    void take(const Reply& reply);
    void takeEntry(const Reply& reply, Slot* slot) const;
    void finish(const Reply& reply, std::size_t index);
    void nextPage(const Reply& reply, std::size_t index);
    void checkEntries(std::uint64_t count) const;

    Shared* const m_shared;
    vorn::Descriptor m_socket;
    std::vector<Slot> m_slots;
    std::vector<std::size_t> m_idle;  // indexes of slots
    std::uint32_t m_generation = 0;
    std::uint64_t m_pagedEntries = 0;  // of the pages so far
    std::string m_out;
    std::vector<char> m_in;
    std::size_t m_received = 0;  // bytes of m_in that are filled
};

}  // namespace load
