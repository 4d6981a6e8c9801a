// SPDX-License-Identifier: Apache-2.0
#include "vex/look_ahead.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <new>
#include <utility>

#include "vex/wire.h"
#include "vorn/strings.h"

namespace vex {
namespace {

// A GUID's text has 36 bytes; braces and the like are allowed for.
constexpr std::size_t kLongestGuid = 64;

static_assert(VEX_MOST_AHEAD <= wire::kMaxLookupsAhead, "the agent refuses more");

bool isGuidSized(const char* guid) {
    const std::size_t length = ::strnlen(guid, kLongestGuid + 1);
    return length > 0 && length <= kLongestGuid;
}

// Of a sound object, which always has one.
std::string_view guidOf(const ObjectRef& object) {
    return view(*findAttribute(*object, AD_OBJECT_GUID_TEXT)->values()->Get(0));
}

}  // namespace

LookAhead::Line::iterator LookAhead::find(Line& line, Line::iterator from, std::string_view guid) {
    return std::find_if(from, line.end(), [&](const Expected& expected) {
        return vorn::equalsIgnoreCase(expected.guid, guid);
    });
}

void LookAhead::expect(const char* const* guids) {
    Line line;
    for (int count = 0; guids && *guids && count < VEX_MOST_AHEAD; ++guids, ++count)
        if (isGuidSized(*guids)) line.push_back({*guids});
    for (Expected& expected : line) {
        const auto before = find(m_line, m_line.begin(), expected.guid);
        if (before == m_line.end()) continue;
        expected.object = std::exchange(before->object, std::nullopt);
        expected.until = before->until;
    }
    m_line = std::move(line);
    m_inLine = false;
}

std::optional<ObjectRef> LookAhead::take(std::string_view guid) {
    const auto found = find(m_line, m_line.begin(), guid);
    m_inLine = found != m_line.end();
    if (!m_inLine) return std::nullopt;
    std::optional<ObjectRef> came;
    if (isHere(*found)) came = std::move(found->object);
    m_line.erase(m_line.begin(), found + 1);
    return came;
}

std::vector<const char*> LookAhead::missing() const {
    std::vector<const char*> guids;
    if (m_inLine)
        for (const Expected& expected : m_line)
            if (!isHere(expected)) guids.push_back(expected.guid.c_str());
    guids.push_back(nullptr);
    return guids;
}

void LookAhead::keep(const Objects& objects) noexcept try {
    if (objects.size() < 2) return m_line.clear();
    const vorn::Moment until = m_clock->now() + std::chrono::seconds(VEX_AHEAD_SECONDS);
    auto place = m_line.begin();
    for (unsigned i = 1; i < objects.size() && place != m_line.end(); ++i) {
        const auto* bytes = objects.Get(i)->bytes();
        ObjectRef object = ObjectRef::copyOf({bytes->data(), bytes->size()});
        const auto found = find(m_line, place, guidOf(object));
        if (found == m_line.end()) continue;  // that was not asked for
        found->object = std::move(object);
        found->until = until;
        place = found + 1;
    }
} catch (const std::bad_alloc&) {
    // What has not come is asked for.
}

void LookAhead::dropObjects() {
    for (Expected& expected : m_line) expected.object.reset();
}

}  // namespace vex
