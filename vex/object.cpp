// SPDX-License-Identifier: Apache-2.0
#include "vex/object.h"

#include <cstring>
#include <new>

#include "vex/wire.h"
#include "vorn/strings.h"

namespace vex {
namespace {

using flatbuffers::Offset;
using flatbuffers::Table;
using flatbuffers::Vector;
using flatbuffers::Verifier;

// The tables of an object, verified with a bound on the values. Offsets may be
// shared, so a few bytes can claim billions of values; an honest encoder spends
// an offset on each, so there are never more than the bytes have room for.
struct CheckedAttribute : private Table {
    bool verify(Verifier& verifier, std::size_t& valuesLeft) const {
        using Fields = wire::Attribute;
        if (!VerifyTableStart(verifier) || !VerifyOffsetRequired(verifier, Fields::VT_NAME) ||
            !VerifyOffsetRequired(verifier, Fields::VT_VALUES))
            return false;
        const auto* name = GetPointer<const flatbuffers::String*>(Fields::VT_NAME);
        const auto* values = GetPointer<const Vector<Offset<flatbuffers::String>>*>(Fields::VT_VALUES);
        if (!verifier.VerifyString(name) || !verifier.VerifyVector(values)) return false;
        if (values->size() > valuesLeft) return false;
        valuesLeft -= values->size();
        return verifier.VerifyVectorOfStrings(values) && verifier.EndTable();
    }
};

struct CheckedObject : private Table {
    bool verify(Verifier& verifier, std::size_t valuesLeft) const {
        if (!VerifyTableStart(verifier) || !VerifyOffsetRequired(verifier, wire::Object::VT_ATTRIBUTES))
            return false;
        const auto* attributes =
            GetPointer<const Vector<Offset<CheckedAttribute>>*>(wire::Object::VT_ATTRIBUTES);
        if (!verifier.VerifyVector(attributes)) return false;
        for (const CheckedAttribute* attribute : *attributes)
            if (!attribute->verify(verifier, valuesLeft)) return false;
        return verifier.EndTable();
    }
};

bool isWellFormed(std::span<const std::uint8_t> bytes) {
    Verifier verifier(bytes.data(), bytes.size(), wire::kMaxDepth, wire::kMaxTables);
    const auto root = verifier.VerifyOffset(std::size_t{0});
    if (root == 0) return false;
    const auto* object = reinterpret_cast<const CheckedObject*>(bytes.data() + root);
    return object->verify(verifier, bytes.size() / sizeof(flatbuffers::uoffset_t));
}

bool carries(const wire::Object& object, std::string_view name) {
    const wire::Attribute* attribute = findAttribute(object, name);
    return attribute && attribute->values()->size() > 0 && attribute->values()->Get(0)->size() > 0;
}

}  // namespace

ObjectRef ObjectRef::copyOf(std::span<const std::uint8_t> bytes) {
    void* memory = ::operator new(sizeof(Buffer) + bytes.size());
    ObjectRef object;
    object.m_buffer = new (memory) Buffer{.size = static_cast<std::uint32_t>(bytes.size())};
    std::memcpy(static_cast<std::uint8_t*>(memory) + sizeof(Buffer), bytes.data(), bytes.size());
    return object;
}

void ObjectRef::release() noexcept {
    // Releasing orders this thread's reads before the freeing in whichever thread is last.
    if (!m_buffer || m_buffer->shares.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    m_buffer->~Buffer();
    ::operator delete(m_buffer);
}

bool isSoundObject(std::span<const std::uint8_t> bytes) {
    if (!isWellFormed(bytes)) return false;
    const wire::Object& object = *flatbuffers::GetRoot<wire::Object>(bytes.data());
    return carries(object, AD_OBJECT_DN_TEXT) && carries(object, AD_OBJECT_GUID_TEXT) &&
           carries(object, VORN_OBJECT_CATEGORY);
}

const wire::Attribute* findAttribute(const wire::Object& object, std::string_view name) {
    for (const wire::Attribute* attribute : *object.attributes())
        if (vorn::equalsIgnoreCase(view(*attribute->name()), name)) return attribute;
    return nullptr;
}

}  // namespace vex
