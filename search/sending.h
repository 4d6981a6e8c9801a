// SPDX-License-Identifier: Apache-2.0
// What every reply is sent with.
#pragma once

#include "backend/base/slapd_fwd.h"

// Either may take as long as the client pleases, and says so to who shares out slapd's
// threads.
//
// Sends an entry; what slapd answers.
int sendEntry(Operation* op, SlapReply* rs, Entry* entry, AttributeName* attributes);
void sendResult(Operation* op, SlapReply* rs);
