// SPDX-License-Identifier: Apache-2.0
#include "agent/directory/account_state.h"

#include <limits>

#include "vorn/numbers.h"

namespace vexagent {
namespace {

constexpr std::int64_t kDisabled = 0x2;  // of userAccountControl

// accountExpires counts 100 ns since 1601.
constexpr std::int64_t kTicksPerSecond = 10'000'000;
constexpr std::int64_t kSecondsTo1970 = 11'644'473'600;

}  // namespace

std::optional<std::int64_t> stateNumber(const std::vector<std::string_view>& values) {
    if (values.empty()) return 0;
    return values.size() == 1 ? vorn::parseNumber<std::int64_t>(values.front()) : std::nullopt;
}

bool isDisabled(std::int64_t control) {
    return (control & kDisabled) != 0;
}

bool hasExpired(std::int64_t expires, std::time_t time) {
    const bool never = expires <= 0 || expires == std::numeric_limits<std::int64_t>::max();
    return !never && expires / kTicksPerSecond - kSecondsTo1970 <= time;
}

}  // namespace vexagent
