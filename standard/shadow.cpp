// SPDX-License-Identifier: Apache-2.0
#include "standard/shadow.h"

#include <algorithm>
#include <limits>

#include "vorn/numbers.h"
#include "vorn/strings.h"

namespace standard {
namespace {

// Active Directory counts 100 ns, and dates from 1601.
constexpr std::int64_t kTicksPerSecond = 10'000'000;
constexpr std::int64_t kSecondsTo1970 = 11'644'473'600;
constexpr std::int64_t kSecondsPerDay = 86'400;
constexpr std::int64_t kForever = std::numeric_limits<std::int64_t>::max();

// Of userAccountControl.
constexpr std::int64_t kDisabled = 0x2;
constexpr std::int64_t kPasswordNeverExpires = 0x10000;
constexpr std::int64_t kSmartcard = 0x40000;

// The number that an attribute has, or 0; nothing for what is no number.
std::optional<std::int64_t> numberOf(const AgentObject& object, const char* name) {
    const AgentObject::Values& values = object.values(name);
    if (values.empty()) return 0;
    return values.size() == 1 ? vorn::parseNumber<std::int64_t>(values.front()) : std::nullopt;
}

// Spans of time are below zero there; 0, and the most that there is, mean never.
std::optional<std::int64_t> spanOf(const AgentObject& domain, const char* name) {
    const std::int64_t ticks = numberOf(domain, name).value_or(0);
    if (ticks >= 0 || ticks == std::numeric_limits<std::int64_t>::min()) return std::nullopt;
    return -ticks / kTicksPerSecond;
}

std::int64_t secondsOf(std::int64_t date) {
    return date / kTicksPerSecond - kSecondsTo1970;
}

bool isLocked(std::int64_t lockoutTime, const PasswordPolicy& policy, std::time_t now) {
    return lockoutTime > 0 && (!policy.lockout || secondsOf(lockoutTime) + *policy.lockout > now);
}

std::optional<std::int64_t> expiryOf(std::int64_t expires, std::time_t now) {
    if (expires <= 0 || expires == kForever) return std::nullopt;
    const std::int64_t seconds = secondsOf(expires);
    if (seconds <= now) return std::max(kShut, seconds / kSecondsPerDay);
    return (seconds + kSecondsPerDay - 1) / kSecondsPerDay;
}

void add(const Kind& kind, const char* name, const std::optional<std::int64_t>& days, ShownEntry* shown) {
    if (!days) return;
    for (const ShownAttribute& one : kind.attributes)
        if (one.name == name) shown->attributes.push_back({&one, {std::to_string(*days)}});
}

}  // namespace

PasswordPolicy policyOf(const AgentObject& domain) {
    return {spanOf(domain, "maxPwdAge"), spanOf(domain, "lockoutDuration")};
}

Shadow shadowOf(const AgentObject& person, const PasswordPolicy& policy, std::time_t now) {
    const auto control = numberOf(person, "userAccountControl");
    const auto expires = numberOf(person, "accountExpires");
    const auto lockout = numberOf(person, "lockoutTime");
    Shadow shadow;
    const bool readable = control && expires && lockout;
    if (!readable || (*control & kDisabled) != 0 || isLocked(*lockout, policy, now))
        shadow.expire = kShut;
    else
        shadow.expire = expiryOf(*expires, now);
    if (person.values("pwdLastSet").empty()) return shadow;
    const bool ages = control && (*control & (kPasswordNeverExpires | kSmartcard)) == 0;
    const std::int64_t changed = numberOf(person, "pwdLastSet").value_or(0);
    if (changed > 0) shadow.lastChange = secondsOf(changed) / kSecondsPerDay;
    if (changed <= 0 && ages) shadow.lastChange = 0;
    if (ages && policy.maxAge && shadow.lastChange) shadow.max = *policy.maxAge / kSecondsPerDay;
    return shadow;
}

bool wantsShadow(const Kind& kind, const ShownEntry& shown) {
    return kind.shadowOfAccount && vorn::stringInList(shown.classes, "shadowAccount", false);
}

void addShadow(const Kind& kind, const Shadow& shadow, ShownEntry* shown) {
    add(kind, "shadowLastChange", shadow.lastChange, shown);
    add(kind, "shadowMax", shadow.max, shown);
    add(kind, "shadowExpire", shadow.expire, shown);
}

}  // namespace standard
