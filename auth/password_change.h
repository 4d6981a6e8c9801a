// SPDX-License-Identifier: Apache-2.0
// People who give themselves a new password (RFC 3062).
#pragma once

#include "backend/base/slapd_fwd.h"

// slapd's hook for extended operations, which it calls for this one alone. Gives the LDAP
// result, and leaves the text in the reply: slapd sends both.
//
// Only the person's own password is changed, and the old one must be given. 49 where the
// old one is not right, 50 where the person may not do it, 19 where the new one is not
// taken, else what a bind would say. Never 53: slapd takes that for leave to write the
// password into the database in its own way.
//
// Once the directory may have the new password, the old one is nobody's: the credential
// cache is empty.
int vex_back_extended(Operation* op, SlapReply* rs);
