// SPDX-License-Identifier: Apache-2.0
#include "vex/request.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <vector>

#include "vex/wire.h"
#include "vorn/secret.h"

namespace vex {
namespace {

constexpr std::size_t kInitialBytes = 1024;
constexpr std::size_t kUsualNames = 16;

// A builder that outgrows its buffer leaves the old one behind: each is
// overwritten as it is released.
class WipingAllocator : public flatbuffers::Allocator {
  public:
    std::uint8_t* allocate(std::size_t size) override { return new std::uint8_t[size]; }
    void deallocate(std::uint8_t* memory, std::size_t size) override {
        vorn::wipe(memory, size);
        delete[] memory;
    }
};

std::uint64_t nextId() {
    static std::atomic<std::uint64_t> last{0};
    return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

flatbuffers::Allocator* allocatorFor(Secrecy secrecy) {
    static WipingAllocator wiping;
    return secrecy == Secrecy::Secret ? &wiping : nullptr;
}

}  // namespace

bool Options::set(int option, std::int32_t value) {
    const auto* known = std::find(kKnown.begin(), kKnown.end(), option);
    if (known == kKnown.end()) return false;
    m_values[static_cast<std::size_t>(known - kKnown.begin())] = value;
    return true;
}

flatbuffers::Offset<flatbuffers::Vector<flatbuffers::Offset<wire::Option>>> Options::write(
    flatbuffers::FlatBufferBuilder& builder) const {
    std::array<flatbuffers::Offset<wire::Option>, kKnown.size()> options;
    std::size_t count = 0;
    for (std::size_t i = 0; i < kKnown.size(); ++i)
        if (m_values[i]) options[count++] = wire::CreateOption(builder, kKnown[i], *m_values[i]);
    if (count == 0) return {};
    return builder.CreateVector(options.data(), count);
}

Request::Request(Secrecy secrecy)
    : m_id(nextId()), m_room(wire::kMaxRequestBytes), m_builder(kInitialBytes, allocatorFor(secrecy)) {}

bool Request::makeRoom(std::size_t bytes) {
    if (bytes <= m_room) {
        m_room -= bytes;
        return true;
    }
    m_tooLarge = true;
    return false;
}

flatbuffers::Offset<flatbuffers::String> Request::text(const char* text) {
    const std::size_t length = text ? ::strnlen(text, wire::kMaxRequestBytes) : 0;
    if (length == 0 || !makeRoom(length)) return {};
    return m_builder.CreateString(text, length);
}

flatbuffers::Offset<flatbuffers::Vector<flatbuffers::Offset<flatbuffers::String>>> Request::names(
    const char* const* names) {
    if (!names || !*names) return {};
    std::vector<flatbuffers::Offset<flatbuffers::String>> offsets;
    offsets.reserve(kUsualNames);
    for (; *names; ++names) {
        const std::size_t length = ::strnlen(*names, wire::kMaxRequestBytes);
        if (offsets.size() == wire::kMaxRequestedAttributes || !makeRoom(length)) {
            m_tooLarge = true;
            return {};
        }
        offsets.push_back(m_builder.CreateString(*names, length));
    }
    return m_builder.CreateVector(offsets);
}

void Request::finish(const Options& options, wire::Body type, flatbuffers::Offset<void> body) {
    const auto written = options.write(m_builder);
    m_builder.Finish(wire::CreateRequest(m_builder, m_id, written, type, body), wire::kRequestIdentifier);
}

bool Request::isTooLarge() const {
    return m_tooLarge || m_builder.GetSize() > wire::kMaxRequestBytes;
}

}  // namespace vex
