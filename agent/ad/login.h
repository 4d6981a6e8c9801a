// What a refused log-in means.
#pragma once

#include <ctime>
#include <optional>

#include "agent/ad/entry.h"
#include "agent/ad/failure.h"
#include "agent/ad/net/tickets.h"
#include "agent/directory/directory.h"

namespace vexagent {

// The attributes that tell why an account is refused.
inline const std::vector<std::string> kLoginAttributes = {
    "sAMAccountName", "objectGUID", "userAccountControl", "accountExpires", "lockoutTime", "pwdLastSet"};

// The outcome of a check by Kerberos, for the account's entry. time is the host's.
Verdict loginResult(const PasswordCheck& check, const Entry& account, std::time_t time);

// Why a check by a bind came to nothing. Controllers put the reason into the text, as
// "data 52e".
Verdict loginFailure(const LdapFailure& failure);

// A refusal where the entry says something of the account's state that cannot be read.
std::optional<Result> unreadableState(const Entry& account);

Result noSuchUser();
Result wrongPassword();
// The password was right.
Result accountRefused(const std::string& why);
// It may have been wrong: the client is told what it is told of a wrong one, so that it
// learns nothing of the account.
Result refusedUnseen(const std::string& why);

}  // namespace vexagent
