// SPDX-License-Identifier: Apache-2.0
// The messages of a run, made beforehand, and the order in which they are sent.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "bench/load/plan.h"

namespace load {

// One message for each key, or a single one when the mode has none.
class Requests {
  public:
    explicit Requests(const Plan& plan);

    std::size_t count() const { return m_messages.size(); }
    // The message with that id written into it.
    const std::string& message(std::size_t index, std::uint32_t id) {
        setMessageId(&m_messages[index], id);
        return m_messages[index];
    }
    const std::string& key(std::size_t index) const { return m_keys[index]; }

  private:
    std::vector<std::string> m_keys;
    std::vector<std::string> m_messages;
};

// Which request is next. Drawn: at random, again and again. Otherwise each once, in
// a random order, and from the beginning when more are wanted.
class Order {
  public:
    Order(std::size_t count, std::uint64_t seed, bool drawn);

    std::size_t next();

  private:
    std::mt19937_64 m_random;
    std::vector<std::size_t> m_shuffled;  // empty when drawn
    std::size_t m_count;
    std::size_t m_place = 0;
};

}  // namespace load
