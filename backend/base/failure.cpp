// SPDX-License-Identifier: Apache-2.0
#include "backend/base/failure.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <utility>

#include "backend/base/agent_turns.h"
#include "backend/base/log.h"
#include "vex/vex.h"

#include "backend/base/slapd.h"

namespace {

// Codes after which the agent cannot be asked anything in this session.
bool sessionIsBroken(vexCode code) {
    return code == VEX_BROKEN_SESSION || code == VEX_BROKEN_HANDLE;
}

const char* codeName(vexCode code) {
    const char* name = "";
    vexGetVexCodeStr(code, &name);
    return name;
}

const char* systemName(int errSystem) {
    const char* name = "";
    vexGetErrSystemStr(errSystem, &name);
    return name;
}

// An error as the agent tells it.
struct AgentError {
    int system = 0;
    int code = -1;
    std::unique_ptr<char, decltype(&vexFreeString)> text{nullptr, vexFreeString};

    const char* textOrNone() const { return text ? text.get() : "<No Message>"; }
};

// Whether a failure can be told by it: the codes of RFC 4511 and what extensions have
// added. Success is none, whatever an agent says: a client that reads it has logged in.
bool tellsFailure(int code) {
    static constexpr std::pair<int, int> kRanges[] = {{1, 8},   {10, 14},   {16, 21},    {32, 36},
                                                      {47, 54}, {60, 61},   {64, 71},    {76, 76},
                                                      {80, 80}, {113, 123}, {4096, 4096}};
    return std::any_of(std::begin(kRanges), std::end(kRanges),
                       [code](const auto& range) { return code >= range.first && code <= range.second; });
}

// What the client is told: a result code and a text of limited length.
class Diagnosis {
  public:
    Diagnosis(vexSession* session, const char* context, vexCode code, int size)
        : m_size(size < kFailureTextBytes ? size : kFailureTextBytes) {
        if (code == kTooManyWait) {
            say(LDAP_BUSY, "%s", kTooManyWaitText);
        } else if (sessionIsBroken(code)) {
            say(LDAP_UNAVAILABLE, "%s: Failed to communicate with vexagent due to broken session handle",
                context);
        } else {
            askHealth(session, context, code);
        }
    }

    int result() const { return m_result; }
    const char* text() const { return m_text; }

  private:
    void say(int result, const char* format, ...) __attribute__((format(printf, 3, 4))) {
        m_result = result;
        std::va_list arguments;
        va_start(arguments, format);
        // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the line above initialises it
        std::vsnprintf(m_text, static_cast<std::size_t>(m_size), format, arguments);
        va_end(arguments);
    }

    // Health comes before everything else: an unhealthy agent's "wrong password"
    // says nothing about the password.
    void askHealth(vexSession* session, const char* context, vexCode code) {
        int condition = 1;
        AgentError error;
        char* errString = nullptr;
        const vexCode asked = inTurn([&] {
            return vexSystemHealthInfo(session, 0, &condition, &error.system, &error.code, &errString);
        });
        error.text.reset(errString);
        if (asked == kTooManyWait) {
            say(LDAP_BUSY, "%s", kTooManyWaitText);
        } else if (asked != VEX_OK) {
            say(LDAP_UNAVAILABLE, "%s: Failed to retrieve last system error, due to broken session handle.",
                context);
        } else if (condition != 0) {
            say(LDAP_UNAVAILABLE,
                "%s:System is unhealthy(cc=%d), reason:%s, errSystem=%s, errCode=%d, errString=%s", context,
                condition, codeName(condition), systemName(error.system), error.code, error.textOrNone());
        } else if (code == VEX_NO_SUCH_USER || code == VEX_WRONG_PASSWORD) {
            say(LDAP_INVALID_CREDENTIALS, "%s: cannot bind to server due to invalid user or password.",
                context);
        } else {
            askProtocolError(session, context, code);
        }
    }

    void askProtocolError(vexSession* session, const char* context, vexCode code) {
        AgentError error;
        char* errString = nullptr;
        const vexCode asked = vexGetLastProtocolError(session, &error.system, &error.code, &errString);
        error.text.reset(errString);
        if (asked == VEX_OK) {
            say(ldapResult(error), "%s:%s (vexRC=%d), errSystem=%s, errCode=%d, errString=%s", context,
                codeName(code), code, systemName(error.system), error.code, error.textOrNone());
        } else if (asked == VEX_BROKEN_SESSION) {
            say(LDAP_UNAVAILABLE, "%s: Failed to retrieve last protocol error, due to broken session handle",
                context);
        } else {
            say(LDAP_OTHER, "%s: %s (vexRC=%d)", context, codeName(code), code);
        }
    }

    static int ldapResult(const AgentError& error) {
        if (error.system != VEX_ERR_LDAP) return LDAP_OTHER;
        SlapReply reply{};
        reply.sr_err = error.code;
        const int result = slap_map_api2result(&reply);
        return tellsFailure(result) ? result : LDAP_OTHER;
    }

    const int m_size;
    int m_result = LDAP_OTHER;
    char m_text[kFailureTextBytes] = "";
};

}  // namespace

char* failureText() {
    static thread_local char text[kFailureTextBytes];
    return text;
}

int explainFailure(vexSession* session, const char* context, vexCode code, int size, char* text) {
    const Diagnosis diagnosis(session, context, code, size);
    std::memcpy(text, diagnosis.text(), std::strlen(diagnosis.text()) + 1);
    return diagnosis.result();
}

void send_vex_err_info(vexSession* session, const char* context, vexCode code, int size, char* text,
                       Operation* op, SlapReply* rs) {
    rs->sr_err = explainFailure(session, context, code, size, text);
    JPrintf("%s", text);
    rs->sr_text = text;
    const Sending sending;
    send_ldap_result(op, rs);
}
