// SPDX-License-Identifier: Apache-2.0
// Which of a client's texts the agent can be asked about: it reads texts up to a NUL. So a
// name with a NUL could be taken for another name, and a password with a NUL for its first
// part.
#pragma once

#include "backend/base/slapd_fwd.h"

bool holdsNul(const berval& text);

// Whether it is a name that nobody has. An absent one is none.
bool namesNobody(const berval& dn);
