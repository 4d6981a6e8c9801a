// SPDX-License-Identifier: Apache-2.0
#include "search/search.h"

#include <cstdio>
#include <exception>

#include "search/exact_reply.h"
#include "search/operation.h"
#include "search/reply.h"

#include "backend/base/slapd.h"

namespace {

int reportException(Operation* op, SlapReply* rs, const char* what) {
    static thread_local char text[512];
    std::snprintf(text, sizeof text, "%s", what);
    rs->sr_err = LDAP_OTHER;
    rs->sr_text = text;
    send_ldap_result(op, rs);
    return 1;
}

}  // namespace

int vex_back_search(Operation* op, SlapReply* rs) try {
    ExactReply policy(op, rs);
    SearchReply reply(op, rs, &policy);
    SearchOperation search(op, &reply);
    const bool delivered =
        search.prepare() && search.resumeOrOpen() && search.replayOrAsk() && search.deliver();
    const bool staysOpen = delivered && search.endPage();
    if (!staysOpen) search.finish();
    return 0;
} catch (const std::exception& error) {
    return reportException(op, rs, error.what());
}
