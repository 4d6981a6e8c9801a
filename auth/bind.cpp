// SPDX-License-Identifier: Apache-2.0
#include "auth/bind.h"

#include <cstdint>
#include <exception>

#include "auth/binder.h"
#include "auth/credentials.h"
#include "auth/statistics.h"
#include "auth/texts.h"
#include "backend/base/agent_turns.h"
#include "backend/base/failure.h"
#include "backend/base/log.h"
#include "backend/base/settings.h"
#include "backend/base/supported_attributes.h"
#include "vex/handles.h"

#include "backend/base/slapd.h"

namespace {

constexpr std::int32_t kOn = 1;

int fail(vexSession* session, const char* context, vexCode code, Operation* op, SlapReply* rs) {
    send_vex_err_info(session, context, code, kFailureTextBytes - 1, failureText(), op, rs);
    return LDAP_UNAVAILABLE;
}

// The list is fetched once for the life of the module; binds that arrive together may
// all fetch it.
vexCode provideSupportedAttributes(vexSession* session) {
    if (gSupportedObjectAttrList.load(std::memory_order_acquire) != nullptr) return VEX_OK;
    vexStringSet* names = nullptr;
    const vexCode code = inTurn([&] { return vexGetObjectSupportedAttributes(session, &names); });
    if (code != VEX_OK) return code;
    publishSupportedAttributes(vex::UniqueStringSet(names));
    return VEX_OK;
}

void preferCachedAuthentication(vexSession* session) {
    if (!gPreferCacheAuth) return;
    vexSetOption(session, VEX_OPTION_PREFER_CACHED, &kOn, sizeof kOn);
    vexSetOption(session, VEX_OPTION_ALLOW_CACHED, &kOn, sizeof kOn);
}

// Asks the agent, which takes texts that end at their first NUL.
vexCode validate(vexSession* session, const Operation* op) {
    if (namesNobody(op->o_req_dn)) return VEX_NO_SUCH_USER;
    if (holdsNul(op->orb_cred)) return VEX_WRONG_PASSWORD;
    return inTurn(
        [&] { return vexAuthValidatePlainTextUser(session, op->o_req_dn.bv_val, op->orb_cred.bv_val, 0); });
}

// Keeps what the agent has just validated. The agent accepts neither an absent name
// nor an absent password; if it ever did, there would be nothing to remember it by.
void remember(const Operation* op, std::uint64_t asOf) {
    const char* dn = op->o_req_dn.bv_val;
    const char* password = op->orb_cred.bv_val;
    if (dn != nullptr && password != nullptr) back_vex_creds->addCreds(op->o_connid, dn, password, asOf);
}

}  // namespace

bool Binder::answeredFromCache(const Operation* op) {
    const char* dn = op->o_req_dn.bv_val;
    JPrintf("vex bind : called for dn: %s, with id: %lu", dn != nullptr ? dn : "None Set", op->o_connid);
    if (dn == nullptr || namesNobody(op->o_req_dn) || holdsNul(op->orb_cred)) return false;
    const char* password = op->orb_cred.bv_val;
    if (!back_vex_creds->doCacheAuth(dn, password != nullptr ? password : "")) return false;
    JPrintf("vex bind : Active authenticated binding available for dn '%s', no need to do re-auth.", dn);
    back_vex_creds->addConnID(op->o_connid, dn);
    m_statistics.countCacheSuccess();
    return true;
}

int Binder::askAgent(Operation* op, SlapReply* rs) {
    const std::int64_t start = m_clock();
    vexSession* opened = nullptr;
    if (const vexCode code = vexSessionOpen(VEX_SESSION_LOCAL, VEX_INTERFACE_LEVEL, &opened); code != VEX_OK)
        return fail(opened, "vexAuth ", code, op, rs);
    vex::UniqueSession session(opened);

    // Why a call failed is asked in its session: the session is closed after that.
    if (const vexCode code = provideSupportedAttributes(opened); code != VEX_OK)
        return fail(opened, "vexGetObjectSupportedAttributes ", code, op, rs);
    preferCachedAuthentication(opened);
    const std::uint64_t clearings = back_vex_creds->clearings();
    if (const vexCode code = validate(opened, op); code != VEX_OK) {
        fail(opened, "vexAuth ", code, op, rs);
        return LDAP_INVALID_CREDENTIALS;
    }
    session.reset();
    const std::int64_t end = m_clock();
    remember(op, clearings);
    m_statistics.countAgentSuccess(start, end);
    return LDAP_SUCCESS;
}

int Binder::bind(Operation* op, SlapReply* rs) {
    m_statistics.startOnce();
    m_statistics.countBind();
    if (!answeredFromCache(op)) {
        if (const int failure = askAgent(op, rs); failure != LDAP_SUCCESS) return failure;
    }
    m_statistics.logWhenDue();
    return LDAP_SUCCESS;
}

// Nothing was sent when an exception arrives here: sending is the last thing that
// a failed bind does.
int vex_back_bind(Operation* op, SlapReply* rs) try {
    static BindStatistics statistics(gStatisticsLock, vorn::systemTime);
    static Binder binder(statistics, vorn::systemMicroseconds);
    return binder.bind(op, rs);
} catch (const std::exception& error) {
    JError("vex bind : %s", error.what());
    rs->sr_err = LDAP_OTHER;
    rs->sr_text = "internal error";
    send_ldap_result(op, rs);
    return LDAP_OTHER;
}
