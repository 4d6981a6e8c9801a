// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/failure.h"

namespace vexagent {

LdapFailure outOfTime() {
    const std::string text = "the time for the request is up";
    return {LDAP_TIMELIMIT_EXCEEDED, text, false, text};
}

bool isMissing(const LdapFailure& failure) {
    return failure.code == LDAP_NO_SUCH_OBJECT || failure.code == LDAP_INVALID_DN_SYNTAX ||
           failure.code == LDAP_REFERRAL;
}

Result resultOf(const LdapFailure& failure) {
    switch (failure.code) {
        case LDAP_NO_SUCH_OBJECT:
        case LDAP_INVALID_DN_SYNTAX:
        case LDAP_REFERRAL:  // an object of another directory
            return Result::ldap(VEX_NO_SUCH_OBJECT, LDAP_NO_SUCH_OBJECT, "the search base does not exist");
        case LDAP_FILTER_ERROR:
            return Result::ldap(VEX_BAD_FILTER, failure.code, "bad search filter");
        case LDAP_NO_MEMORY:
            return Result::ldap(VEX_NO_MEMORY, failure.code, "out of memory").because(failure.text);
        default:
            break;
    }
    const vexCode code = failure.lost ? VEX_UNAVAILABLE : VEX_DIRECTORY_ERROR;
    std::string told = failure.told;
    if (told.empty()) told = failure.lost ? "the domain is out of reach" : ldap_err2string(failure.code);
    return Result::ldap(code, failure.code, told).because(failure.text);
}

}  // namespace vexagent
