// SPDX-License-Identifier: Apache-2.0
// Whether a password is an account's, by Kerberos.
#pragma once

#include <string>

#include "agent/ad/net/kdc.h"
#include "agent/ad/options.h"

namespace vexagent {

// Asks the KDC once and verifies with the keytab that the answer came from the domain.
Expected<Accepted, KdcFailure> checkPassword(const AdOptions& options, KdcConversation& kdc,
                                             const std::string& account, const std::string& domain,
                                             const std::string& password);

}  // namespace vexagent
