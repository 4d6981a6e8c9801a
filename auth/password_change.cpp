// SPDX-License-Identifier: Apache-2.0
#include "auth/password_change.h"

#include <algorithm>
#include <exception>
#include <string_view>

#include "auth/credentials.h"
#include "auth/texts.h"
#include "backend/base/agent_turns.h"
#include "backend/base/failure.h"
#include "backend/base/log.h"
#include "vex/handles.h"
#include "vorn/secret.h"

#include "backend/base/slapd.h"

namespace {

struct Outcome {
    int result;
    const char* text;  // may be null
};
constexpr Outcome kDone = {LDAP_SUCCESS, nullptr};

// As the client has sent it: slapd itself makes up a new password where there is none. The
// texts end without a NUL.
struct Wish {
    berval person{};
    berval oldPassword{};
    berval newPassword{};
};

bool isSame(const berval& one, const berval& other) {
    return one.bv_len == other.bv_len && std::equal(one.bv_val, one.bv_val + one.bv_len, other.bv_val);
}

std::string_view viewOf(const berval& text) {
    return {text.bv_val, text.bv_len};
}

// What is refused without the agent.
Outcome checkWish(const Operation* op, const Wish& wish) {
    if (op->o_ndn.bv_len == 0 || !isSame(op->o_ndn, op->o_req_ndn))
        return {LDAP_INSUFFICIENT_ACCESS, "people change their own passwords only"};
    if (wish.oldPassword.bv_len == 0)
        return {LDAP_INVALID_CREDENTIALS, "the old password must be given, too"};
    if (wish.newPassword.bv_len == 0)
        return {LDAP_CONSTRAINT_VIOLATION, "the new password must be given: none is made up here"};
    if (namesNobody(op->o_req_dn) || holdsNul(wish.oldPassword))
        return {LDAP_INVALID_CREDENTIALS, "the old password is not right"};
    if (holdsNul(wish.newPassword)) return {LDAP_CONSTRAINT_VIOLATION, "a password cannot hold a NUL"};
    return kDone;
}

// Whether it is certain that the old password still holds.
bool isUnchanged(vexCode code) {
    static constexpr vexCode kRefusals[] = {kTooManyWait,        VEX_INVALID_ARGUMENT, VEX_NO_MEMORY,
                                            VEX_NOT_SUPPORTED,   VEX_NO_SUCH_USER,     VEX_WRONG_PASSWORD,
                                            VEX_ACCOUNT_REFUSED, VEX_REFUSED};
    return std::find(std::begin(kRefusals), std::end(kRefusals), code) != std::end(kRefusals);
}

vexCode askAgent(vexSession* session, const Operation* op, const Wish& wish) {
    const vorn::Secret oldPassword(viewOf(wish.oldPassword));
    const vorn::Secret newPassword(viewOf(wish.newPassword));
    const vexCode code = inTurn([&] {
        return vexAuthChangePassword(session, op->o_req_dn.bv_val, oldPassword.text().c_str(),
                                     newPassword.text().c_str());
    });
    // All of it: a person may have bound by several names.
    if (!isUnchanged(code)) back_vex_creds->clearCreds();
    return code;
}

// What the directory has against it, in its own words, if it says so.
Outcome refusalOf(vexSession* session) {
    int system = 0;
    int code = 0;
    char* said = nullptr;
    if (vexGetLastProtocolError(session, &system, &code, &said) != VEX_OK) return kDone;
    const vex::UniqueString text(said);
    const bool isRefusal = code == LDAP_CONSTRAINT_VIOLATION || code == LDAP_INSUFFICIENT_ACCESS ||
                           code == LDAP_UNWILLING_TO_PERFORM;
    if (system != VEX_ERR_LDAP || text == nullptr || !isRefusal) return kDone;
    std::string_view words(text.get());
    words = words.substr(0, kFailureTextBytes - 1);
    failureText()[words.copy(failureText(), words.size())] = '\0';
    return {code, failureText()};
}

Outcome explain(vexSession* session, vexCode code) {
    Outcome outcome = kDone;
    if (code == VEX_REFUSED || code == VEX_NOT_SUPPORTED) outcome = refusalOf(session);
    if (outcome.result == LDAP_SUCCESS) {
        const int result =
            explainFailure(session, "vexAuthChangePassword ", code, kFailureTextBytes - 1, failureText());
        JPrintf("%s", failureText());
        outcome = {result, failureText()};
    }
    if (outcome.result == LDAP_UNWILLING_TO_PERFORM) outcome.result = LDAP_INSUFFICIENT_ACCESS;
    return outcome;
}

Outcome change(const Operation* op, const Wish& wish) {
    vexSession* opened = nullptr;
    if (const vexCode code = vexSessionOpen(VEX_SESSION_LOCAL, VEX_INTERFACE_LEVEL, &opened); code != VEX_OK)
        return explain(opened, code);
    const vex::UniqueSession session(opened);
    const vexCode code = askAgent(opened, op, wish);
    JPrintf("vex password change for '%s': code %d", op->o_req_dn.bv_val, code);
    return code == VEX_OK ? kDone : explain(opened, code);
}

Outcome answer(Operation* op) {
    if (!isSame(op->ore_reqoid, slap_EXOP_MODIFY_PASSWD))
        return {LDAP_PROTOCOL_ERROR, "unsupported extended operation"};
    Wish wish;
    const char* why = nullptr;
    const int parsed =
        slap_passwd_parse(op->ore_reqdata, &wish.person, &wish.oldPassword, &wish.newPassword, &why);
    if (parsed != LDAP_SUCCESS) return {parsed, why};
    const Outcome refusal = checkWish(op, wish);
    return refusal.result == LDAP_SUCCESS ? change(op, wish) : refusal;
}

}  // namespace

int vex_back_extended(Operation* op, SlapReply* rs) try {
    const Outcome outcome = answer(op);
    rs->sr_text = outcome.text;
    return rs->sr_err = outcome.result;
} catch (const std::exception& error) {
    JError("vex password change: %s", error.what());
    rs->sr_text = "internal error";
    return rs->sr_err = LDAP_OTHER;
}
