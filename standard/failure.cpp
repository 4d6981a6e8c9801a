// SPDX-License-Identifier: Apache-2.0
#include "standard/failure.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "backend/base/failure.h"
#include "backend/base/log.h"
#include "search/sending.h"

#include "backend/base/slapd.h"

namespace standard {
namespace {

std::string nameOf(const Operation& op) {
    return "conn=" + std::to_string(op.o_connid) + " op=" + std::to_string(op.o_opid);
}

// A text that is too long is cut, the name is not.
void send(Operation* op, SlapReply* rs, const std::string& text) {
    const std::string name = " (" + nameOf(*op) + ")";
    const int room = kFailureTextBytes - 1 - static_cast<int>(name.size());
    std::snprintf(failureText(), kFailureTextBytes, "%.*s%s", room, text.c_str(), name.c_str());
    JPrintf("%s", failureText());
    rs->sr_text = failureText();
    sendResult(op, rs);
}

}  // namespace

void sendAgentFailure(Operation* op, SlapReply* rs, const Failure& failure) {
    char text[kFailureTextBytes];
    rs->sr_err = explainFailure(failure.session, failure.context, failure.code, sizeof text, text);
    send(op, rs, text);
}

int sendInternalError(Operation* op, SlapReply* rs, const std::exception& error) {
    JError("vex %s: %s", nameOf(*op).c_str(), error.what());
    rs->sr_err = LDAP_OTHER;
    send(op, rs, "internal error");
    return LDAP_OTHER;
}

}  // namespace standard
