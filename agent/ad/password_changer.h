// SPDX-License-Identifier: Apache-2.0
// Who can give an account of a domain a new password: an interface that the network states
// besides Network, where it talks to the domain in a way that has such a thing.
#pragma once

#include <string>
#include <variant>

#include "agent/ad/network.h"

namespace vexagent {

struct PasswordChange {
    std::string account;  // its sAMAccountName
    std::string dn;
    const std::string& oldPassword;
    const std::string& newPassword;
};

struct ChangeFailure {
    enum class Of {
        OldPassword,  // is not accepted
        NewPassword,  // is not taken
        Leave,        // the account may not change its password
        Service       // did not answer as it should: nobody knows which password holds
    };
    Of of;
    std::variant<KdcFailure, LdapFailure> why;
};

class PasswordChanger {
  public:
    virtual ~PasswordChanger() = default;
    // Asked of one controller, once. Safe for several threads.
    virtual Expected<Done, ChangeFailure> changePassword(const Place& place, const PasswordChange& change,
                                                         const Deadline& deadline) = 0;
};

}  // namespace vexagent
