// SPDX-License-Identifier: Apache-2.0
// The ageing of passwords (RFC 2307's shadowAccount), worked out from what Active Directory
// says of an account. A host that never asks for a password, since people come by a key, has
// nothing else to tell it that somebody is not to come in.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

#include "standard/shown_entry.h"

namespace standard {

// Of a domain, in seconds; nothing: never.
struct PasswordPolicy {
    std::optional<std::int64_t> maxAge;   // after which a password must be changed
    std::optional<std::int64_t> lockout;  // after which a locked account is open again
};

// By what the domain's own object says. What it does not say, or cannot be read, is never.
PasswordPolicy policyOf(const AgentObject& domain);

// In days, as shadow(5) counts them; nothing: there is no such attribute.
struct Shadow {
    std::optional<std::int64_t> lastChange;  // 0: the password must be changed now
    std::optional<std::int64_t> max;
    std::optional<std::int64_t> expire;  // kShut: by now
};

inline constexpr std::int64_t kShut = 1;  // 0 may be taken for "never"

// An account that is disabled or locked is shut. One that expires within a day stays open up
// to that moment, and is shut from then on. State that is there and cannot be read shuts it.
Shadow shadowOf(const AgentObject& person, const PasswordPolicy& policy, std::time_t now);

// Whether the entry is to have them, by its kind and its classes.
bool wantsShadow(const Kind& kind, const ShownEntry& shown);
void addShadow(const Kind& kind, const Shadow& shadow, ShownEntry* shown);

}  // namespace standard
