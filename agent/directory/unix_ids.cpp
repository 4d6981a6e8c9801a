// SPDX-License-Identifier: Apache-2.0
#include "agent/directory/unix_ids.h"

#include <algorithm>
#include <limits>
#include <mutex>
#include <set>
#include <string>

#include "agent/directory/log.h"
#include "vex/vex.h"
#include "vorn/numbers.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

constexpr std::uint32_t kNobody = std::numeric_limits<std::uint32_t>::max();  // (uid_t)-1
constexpr std::size_t kMostTold = 10'000;  // objects; those after them are refused in silence

bool isFirstTime(std::string_view dn) {
    static std::mutex mutex;
    static std::set<std::string, vorn::StringCaseLessThan> told;
    const std::lock_guard lock(mutex);
    return told.size() < kMostTold && told.emplace(dn).second;
}

}  // namespace

bool UnixIds::allows(std::string_view number) const {
    const auto value = vorn::parseNumber<std::uint32_t>(number);
    return value && *value >= m_least && *value != kNobody;
}

bool UnixIds::refuses(std::string_view dn, std::string_view attribute,
                      std::span<const std::string_view> numbers) const {
    const auto refused = std::find_if(numbers.begin(), numbers.end(),
                                      [this](std::string_view number) { return !allows(number); });
    if (refused == numbers.end()) return false;
    if (isFirstTime(dn))
        AGENT_LOG(vorn::Logger::kWarning,
                  "%s is no UNIX entry: its %s, \"%s\", is no number from %u (unix.id.min) on",
                  vorn::printable(dn).c_str(), std::string(attribute).c_str(),
                  vorn::printable(*refused).c_str(), m_least);
    return true;
}

std::string_view ownIdAttribute(std::string_view category) {
    if (category == AD_USER_CATEGORY || category == "Computer") return "uidNumber";
    return category == "Group" ? "gidNumber" : std::string_view();
}

}  // namespace vexagent
