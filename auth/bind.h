// SPDX-License-Identifier: Apache-2.0
// Simple binds: answered from the credential cache, or by the agent.
#pragma once

#include "backend/base/slapd_fwd.h"

// slapd's bind hook. 0 when the bind succeeded (slapd then sends the result);
// otherwise an LDAP result code, after the failure has been sent.
int vex_back_bind(Operation* op, SlapReply* rs);
