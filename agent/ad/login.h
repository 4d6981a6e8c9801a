// SPDX-License-Identifier: Apache-2.0
// What a refused log-in means.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "agent/ad/entry.h"
#include "agent/ad/failure.h"
#include "agent/ad/password_changer.h"

namespace vexagent {

// The attributes that tell why an account is refused.
inline const std::vector<std::string> kLoginAttributes = {
    "sAMAccountName", "objectGUID", "userAccountControl", "accountExpires", "lockoutTime", "pwdLastSet"};

// Why a KDC has not accepted the password of the account of this entry. time is the host's.
Result loginFailure(const KdcFailure& failure, const Entry& account, std::time_t time);

// Why a controller has not accepted a bind. Controllers put the reason into the text, as
// "data 52e".
Result loginFailure(const LdapFailure& failure);

// Why a domain has not changed a password.
Result changeFailure(const ChangeFailure& failure);

// A refusal where the entry says something of the account's state that cannot be read.
std::optional<Result> unreadableState(const Entry& account);

Result noSuchUser();
Result wrongPassword();
// The password was right.
Result accountRefused(const std::string& why);
// It may have been wrong: the client is told what it is told of a wrong one, so that it
// learns nothing of the account.
Result refusedUnseen(const std::string& why);

// Whether it is one of these, and not that nothing could be found out.
bool isRefusal(vexCode code);

}  // namespace vexagent
