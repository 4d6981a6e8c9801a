// SPDX-License-Identifier: Apache-2.0
// An account's new password, by LDAP over TLS.
#pragma once

#include <optional>
#include <string>

#include "agent/ad/net/domain.h"
#include "agent/ad/password_changer.h"
#include "vorn/secret.h"

namespace vexagent {

// A password as the attribute unicodePwd has it: in quotation marks, UTF-16, the low byte
// first. Nothing for a text that is not UTF-8.
std::optional<vorn::Secret> unicodePassword(const std::string& password);

// What a controller means that does not make a change after the old password was right.
ChangeFailure refusedChange(const LdapFailure& failure);

// Binds as the account at one controller, and lets it change its own password there, once.
// The domain's rules about passwords hold, and its right to change them.
Expected<Done, ChangeFailure> changeByLdap(Domain& domain, const PasswordChange& change,
                                           const Deadline& deadline);

}  // namespace vexagent
