// SPDX-License-Identifier: Apache-2.0
// The search operation.
#pragma once

#include "backend/base/slapd_fwd.h"

// slapd's search hook. Answers the whole request itself; 0, save when an
// unexpected exception was reported to the client: then 1.
int vex_back_search(Operation* op, SlapReply* rs);
