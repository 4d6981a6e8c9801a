// SPDX-License-Identifier: Apache-2.0
// Building requests.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>

#include "vex/protocol_generated.h"
#include "vex/vex.h"

namespace vex {

// The options of a session that were set.
class Options {
  public:
    // False for an option that this interface does not know.
    bool set(int option, std::int32_t value);

    flatbuffers::Offset<flatbuffers::Vector<flatbuffers::Offset<wire::Option>>> write(
        flatbuffers::FlatBufferBuilder& builder) const;

  private:
    static constexpr std::array<int, 4> kKnown = {VEX_OPTION_ZONE_VIEW, VEX_OPTION_TYPED,
                                                  VEX_OPTION_PREFER_CACHED, VEX_OPTION_ALLOW_CACHED};
    std::array<std::optional<std::int32_t>, kKnown.size()> m_values;
};

// Whether memory that held the request is overwritten before it is released.
enum class Secrecy { Plain, Secret };

// A request under construction, and its bytes once it is finished.
class Request {
  public:
    explicit Request(Secrecy secrecy = Secrecy::Plain);

    flatbuffers::FlatBufferBuilder& builder() { return m_builder; }

    // Text of a caller: null stands for the empty text. Text that no request can
    // hold is left out and makes the request too large.
    flatbuffers::Offset<flatbuffers::String> text(const char* text);

    // A null-terminated array of names, or null.
    flatbuffers::Offset<flatbuffers::Vector<flatbuffers::Offset<flatbuffers::String>>> names(
        const char* const* names);

    template <typename Body>
    void finish(const Options& options, flatbuffers::Offset<Body> body) {
        finish(options, wire::BodyTraits<Body>::enum_value, body.Union());
    }

    // Whether the agent would refuse the request for its size.
    bool isTooLarge() const;

    // What the answer is known by.
    std::uint64_t id() const { return m_id; }

    std::span<const std::uint8_t> bytes() const {
        return {m_builder.GetBufferPointer(), m_builder.GetSize()};
    }

  private:
    void finish(const Options& options, wire::Body type, flatbuffers::Offset<void> body);
    bool makeRoom(std::size_t bytes);

    const std::uint64_t m_id;
    std::size_t m_room;  // for text
    bool m_tooLarge = false;
    flatbuffers::FlatBufferBuilder m_builder;
};

}  // namespace vex
