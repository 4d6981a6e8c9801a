// SPDX-License-Identifier: Apache-2.0
// What every reply is sent with.
#pragma once

#include "backend/base/slapd_fwd.h"

// Sends an entry; what slapd answers.
int sendEntry(Operation* op, SlapReply* rs, Entry* entry, AttributeName* attributes);
