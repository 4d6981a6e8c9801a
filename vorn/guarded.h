// SPDX-License-Identifier: Apache-2.0
// Data that cannot be reached without its lock.
//
//     Guarded<std::vector<int>> numbers;
//     numbers.lock()->push_back(1);           // for one step
//     const auto all = numbers.lock();        // for several, until the scope ends
//     return all->empty() ? 0 : all->back();
#pragma once

#include <mutex>
#include <utility>

namespace vorn {

// A value and the mutex that guards it. Safe for several threads; not for one that holds it
// already.
template <typename T>
class Guarded {
  public:
    // The value, for as long as this lives.
    template <typename Value>
    class Held {
      public:
        Held(std::mutex& mutex, Value& value) : m_lock(mutex), m_value(&value) {}
        Value& operator*() const { return *m_value; }
        Value* operator->() const { return m_value; }

      private:
        std::unique_lock<std::mutex> m_lock;
        Value* m_value;
    };

    Guarded() = default;
    explicit Guarded(T value) : m_value(std::move(value)) {}
    Guarded(const Guarded&) = delete;
    Guarded& operator=(const Guarded&) = delete;

    [[nodiscard]] Held<T> lock() { return {m_mutex, m_value}; }
    [[nodiscard]] Held<const T> lock() const { return {m_mutex, m_value}; }

  private:
    mutable std::mutex m_mutex;
    T m_value{};
};

}  // namespace vorn
