// SPDX-License-Identifier: Apache-2.0
// Room that is set aside for a handler of Asio's, so that waiting for what must come
// needs no memory at a time when there is none.
#pragma once

#include <array>
#include <cstddef>
#include <new>
#include <utility>

namespace vexagent {

// For one handler at a time, which Asio removes before it calls it; another meanwhile
// lives on the heap. It outlives its handlers. Not safe for several threads at once.
class HandlerRoom {
  public:
    HandlerRoom() = default;
    HandlerRoom(const HandlerRoom&) = delete;
    HandlerRoom& operator=(const HandlerRoom&) = delete;

    void* take(std::size_t size) {
        if (m_taken || size > m_bytes.size()) return ::operator new(size);
        m_taken = true;
        return m_bytes.data();
    }
    void giveBack(void* place) {
        if (place != m_bytes.data()) return ::operator delete(place);
        m_taken = false;
    }

  private:
    alignas(std::max_align_t) std::array<std::byte, 256> m_bytes{};
    bool m_taken = false;
};

// As Asio asks for memory.
template <typename T>
class RoomAllocator {
  public:
    using value_type = T;

    explicit RoomAllocator(HandlerRoom& room) : m_room(&room) {}
    template <typename U>
    RoomAllocator(const RoomAllocator<U>& other) : m_room(other.room()) {}

    T* allocate(std::size_t count) { return static_cast<T*>(m_room->take(count * sizeof(T))); }
    void deallocate(T* place, std::size_t) { m_room->giveBack(place); }

    HandlerRoom* room() const { return m_room; }
    bool operator==(const RoomAllocator& other) const { return m_room == other.m_room; }

  private:
    HandlerRoom* m_room;
};

template <typename Handler>
class HandlerInRoom {
  public:
    using allocator_type = RoomAllocator<std::byte>;

    HandlerInRoom(HandlerRoom& room, Handler handler) : m_room(&room), m_handler(std::move(handler)) {}

    allocator_type get_allocator() const { return allocator_type(*m_room); }

    template <typename... Arguments>
    void operator()(Arguments&&... arguments) {
        m_handler(std::forward<Arguments>(arguments)...);
    }

  private:
    HandlerRoom* m_room;
    Handler m_handler;
};

template <typename Handler>
HandlerInRoom<Handler> inRoom(HandlerRoom& room, Handler handler) {
    return {room, std::move(handler)};
}

}  // namespace vexagent
