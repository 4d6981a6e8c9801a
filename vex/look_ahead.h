// SPDX-License-Identifier: Apache-2.0
// What a session will look up next, and the objects that have come before their look-up.
#pragma once

#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "vex/object.h"
#include "vorn/clock.h"

namespace vex {

// Used by one thread at a time. Holds VEX_MOST_AHEAD objects at most.
class LookAhead {
  public:
    using Objects = flatbuffers::Vector<flatbuffers::Offset<wire::PackedObject>>;

    // The clock outlives it.
    explicit LookAhead(const vorn::SteadyClock& clock = vorn::systemSteadyClock()) : m_clock(&clock) {}

    // The GUIDs of a null-terminated array, or none for null, in place of those before.
    // An object that came for one of them stays.
    void expect(const char* const* guids);

    // A look-up begins: the object that came for it, if it is not too old. What was
    // expected before it is not expected any more.
    std::optional<ObjectRef> take(std::string_view guid);

    // What to ask for together with the GUID that was taken last: the ones that follow
    // it, without those whose objects are here; none when it was not expected. A null
    // ends them. Valid until the next call of another function.
    std::vector<const char*> missing() const;

    // An answer's objects: the first is the answer itself, the others are those of
    // missing(), some left out. When none came, the agent does not know of hints, or
    // has no time for them, and is not asked for more.
    void keep(const Objects& objects) noexcept;

    // The objects that came are of no use any more. The expected look-ups still are.
    void dropObjects();

  private:
    struct Expected {
        std::string guid;
        std::optional<ObjectRef> object = {};
        vorn::Moment until = {};  // when there is an object
    };
    using Line = std::deque<Expected>;

    static Line::iterator find(Line& line, Line::iterator from, std::string_view guid);
    bool isHere(const Expected& expected) const { return expected.object && m_clock->now() < expected.until; }

    const vorn::SteadyClock* m_clock;
    Line m_line;
    bool m_inLine = false;  // the GUID that was taken last was expected
};

}  // namespace vex
