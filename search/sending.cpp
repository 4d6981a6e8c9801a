// SPDX-License-Identifier: Apache-2.0
#include "search/sending.h"

#include "backend/base/agent_turns.h"

#include "backend/base/slapd.h"

int sendEntry(Operation* op, SlapReply* rs, Entry* entry, AttributeName* attributes) {
    const Sending sending;
    rs->sr_entry = entry;
    rs->sr_attrs = attributes;
    rs->sr_flags = 0;
    const int sent = send_search_entry(op, rs);
    rs->sr_entry = nullptr;
    return sent;
}

void sendResult(Operation* op, SlapReply* rs) {
    const Sending sending;
    send_ldap_result(op, rs);
}
