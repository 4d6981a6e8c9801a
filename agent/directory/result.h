// SPDX-License-Identifier: Apache-2.0
// How a call of a directory ended.
#pragma once

#include <string>
#include <utility>

#include "vex/vex.h"

namespace vexagent {

// A code of the client interface, and the error behind it. Clients are told the text, so
// it names no address, path, setting or account. What an administrator needs in addition
// is the detail. It goes to the log only.
struct Result {
    vexCode code = VEX_OK;
    int errSystem = 0;  // VEX_ERR_..., 0 for none
    int errCode = 0;
    std::string errText;
    std::string detail{};

    bool ok() const { return code == VEX_OK; }

    // This, and why.
    Result because(std::string why) && {
        detail = std::move(why);
        return std::move(*this);
    }
    const std::string& whole() const { return detail.empty() ? errText : detail; }

    static Result agent(vexCode code, std::string text) {
        return {code, VEX_ERR_AGENT, code, std::move(text), {}};
    }
    static Result ldap(vexCode code, int ldapCode, std::string text) {
        return {code, VEX_ERR_LDAP, ldapCode, std::move(text), {}};
    }
};

}  // namespace vexagent
