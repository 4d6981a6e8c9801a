// SPDX-License-Identifier: Apache-2.0
// Directory objects in memory.
//
// An object is one immutable buffer: a count and the bytes of a verified
// wire::Object. Whoever reads it holds a share (ObjectRef); the last share frees
// it. Shares may be taken and given back by any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <span>
#include <string_view>
#include <utility>

#include "vex/protocol_generated.h"
#include "vex/vex.h"

namespace vex {

class ObjectRef {
  public:
    ObjectRef() = default;
    ~ObjectRef() { release(); }
    ObjectRef(const ObjectRef& other) noexcept : m_buffer(other.m_buffer) {
        if (m_buffer) m_buffer->shares.fetch_add(1, std::memory_order_relaxed);
    }
    ObjectRef(ObjectRef&& other) noexcept : m_buffer(std::exchange(other.m_buffer, nullptr)) {}
    ObjectRef& operator=(ObjectRef other) noexcept {
        std::swap(m_buffer, other.m_buffer);
        return *this;
    }

    // A copy of the bytes of a wire::Object for which isSoundObject holds. Throws std::bad_alloc.
    static ObjectRef copyOf(std::span<const std::uint8_t> bytes);

    const wire::Object& operator*() const { return *flatbuffers::GetRoot<wire::Object>(m_buffer + 1); }
    const wire::Object* operator->() const { return &**this; }

    // The bytes of the buffer, its count included; there must be one.
    std::size_t memory() const { return sizeof(Buffer) + m_buffer->size; }

  private:
    // The bytes follow in the same allocation.
    struct alignas(8) Buffer {
        std::atomic<std::uint32_t> shares{1};
        std::uint32_t size;
    };

    void release() noexcept;

    Buffer* m_buffer = nullptr;
};

// Whether the bytes are a wire::Object that can be read without a further look:
// a well-formed FlatBuffer within the limits of vex/wire.h that carries what
// every object carries. Takes time linear in their number.
bool isSoundObject(std::span<const std::uint8_t> bytes);

// The attribute of that name, in whatever case; null when the object has none.
const wire::Attribute* findAttribute(const wire::Object& object, std::string_view name);

// The bytes of a FlatBuffers string, which a NUL follows.
inline std::string_view view(const flatbuffers::String& text) {
    return {text.c_str(), text.size()};
}

}  // namespace vex

// A handle: one share of an object.
struct vexObject {
    vex::ObjectRef content;
};
