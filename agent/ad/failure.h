// SPDX-License-Identifier: Apache-2.0
// Why a domain did not do what it was asked for.
#pragma once

#include <ldap.h>

#include <string>

#include "agent/directory/result.h"

namespace vexagent {

// By a result code of LDAP, or of libldap. There is none that means success: whoever has
// a failure has one.
struct LdapFailure {
    // A code of 0 is no reason: it becomes LDAP_OTHER.
    LdapFailure(int why, std::string reason, bool nobody = false, std::string shown = {})
        : code(why == LDAP_SUCCESS ? LDAP_OTHER : why),
          text(std::move(reason)),
          lost(nobody),
          told(std::move(shown)) {}

    int code;
    std::string text;  // for the log
    bool lost;         // no controller answered as one should
    std::string told;  // what a client is told; empty: what the code says
};

// The request has used up its own time: nobody else's failure.
LdapFailure outOfTime();

// Whether an object is not there, or not in this directory.
bool isMissing(const LdapFailure& failure);

// The same in the terms of the client interface.
Result resultOf(const LdapFailure& failure);

// Why a password was not accepted by a KDC.
struct KdcFailure {
    int code;              // of the Kerberos library; not 0
    std::string text;      // its own
    bool verified = true;  // false: accepted by somebody who could not prove to be the domain
};

}  // namespace vexagent
