// SPDX-License-Identifier: Apache-2.0
// An account's new password, by Kerberos (RFC 3244).
#pragma once

#include <string>

#include "agent/ad/net/kdc.h"
#include "agent/ad/options.h"
#include "agent/ad/password_changer.h"

namespace vexagent {

// Asks the KDC for a ticket with the old password, and then the same controller's password
// service for the change, once. A ticket that opens with the old password is proof enough
// of the controller: nobody is let in for it.
Expected<Done, ChangeFailure> changeByKerberos(const AdOptions& options, KdcConversation& kdc,
                                               const PasswordChange& change, const std::string& domain,
                                               const Deadline& deadline);

}  // namespace vexagent
