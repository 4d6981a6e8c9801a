// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/login.h"

#include <krb5.h>

#include <charconv>

#include "agent/directory/account_state.h"
#include "agent/directory/passwords.h"

namespace vexagent {
namespace {

std::optional<std::int64_t> numberOf(const Entry& account, const char* name) {
    const Attribute* attribute = account.find(name);
    if (attribute == nullptr) return 0;
    return stateNumber({attribute->values.begin(), attribute->values.end()});
}

// Whether an attribute is there and is this number.
bool isNumber(const Entry& account, const char* name, std::int64_t number) {
    return account.find(name) != nullptr && numberOf(account, name) == number;
}

// Why the account's credentials are revoked, as far as its entry tells.
std::string whyRevoked(const Entry& account, std::time_t time) {
    if (isDisabled(numberOf(account, "userAccountControl").value_or(0))) return "the account is disabled";
    if (hasExpired(numberOf(account, "accountExpires").value_or(0), time)) return "the account has expired";
    if (numberOf(account, "lockoutTime") != 0) return "the account is locked out";
    return "the account may not log in now";
}

// Also of an account whose password is to be changed at once.
bool passwordNeverSet(const Entry& account) {
    return isNumber(account, "pwdLastSet", 0);
}

std::string whyExpired(const Entry& account) {
    if (passwordNeverSet(account)) return "the password must be changed";
    return "the password has expired";
}

Result kerberosError(const KdcFailure& failure, const std::string& text) {
    return {VEX_DIRECTORY_ERROR, VEX_ERR_KERBEROS, failure.code, text, text + ": " + failure.text};
}

constexpr char kNotSaid[] = "the domain has not said whether the password was changed";

// What follows "data " in a controller's text.
int reasonIn(const std::string& text) {
    int reason = 0;
    if (const std::size_t at = text.find("data "); at != std::string::npos)
        std::from_chars(text.data() + at + 5, text.data() + text.size(), reason, 16);
    return reason;
}

}  // namespace

Result noSuchUser() {
    return Result::ldap(VEX_NO_SUCH_USER, LDAP_INVALID_CREDENTIALS, "no such user");
}
Result wrongPassword() {
    return Result::ldap(VEX_WRONG_PASSWORD, LDAP_INVALID_CREDENTIALS, "wrong password");
}
Result accountRefused(const std::string& why) {
    return Result::ldap(VEX_ACCOUNT_REFUSED, LDAP_INVALID_CREDENTIALS, why);
}

Result refusedUnseen(const std::string& why) {
    return wrongPassword().because(why);
}

std::optional<Result> unreadableState(const Entry& account) {
    for (const char* name : kStateAttributes)
        if (!numberOf(account, name)) return accountRefused("the account's state cannot be read");
    return std::nullopt;
}

bool isRefusal(vexCode code) {
    return code == VEX_NO_SUCH_USER || code == VEX_WRONG_PASSWORD || code == VEX_ACCOUNT_REFUSED;
}

Result loginFailure(const KdcFailure& failure, const Entry& account, std::time_t time) {
    if (!failure.verified)
        return kerberosError(failure,
                             "the answer to the password check could not be verified with the keytab");
    switch (failure.code) {
        case KRB5KDC_ERR_C_PRINCIPAL_UNKNOWN:
            return noSuchUser();
        case KRB5KDC_ERR_PREAUTH_FAILED:
        case KRB5KRB_AP_ERR_BAD_INTEGRITY:
            return wrongPassword();
        // A KDC may say all of these before it looks at the password.
        case KRB5KDC_ERR_CLIENT_REVOKED:
            return refusedUnseen(whyRevoked(account, time));
        case KRB5KDC_ERR_KEY_EXP:
            return refusedUnseen(whyExpired(account));
        case KRB5KDC_ERR_NAME_EXP:
            return refusedUnseen("the account has expired");
        case KRB5KDC_ERR_ETYPE_NOSUPP:
            // Whoever never had a password has no key: to a bind no password is right.
            if (passwordNeverSet(account)) return wrongPassword();
            return refusedUnseen("the account has no password that Kerberos could check");
        case KRB5KDC_ERR_POLICY:
            return refusedUnseen("the account may not log in here or now");
        case KRB5KRB_AP_ERR_SKEW:
            return kerberosError(failure, "the clocks of this host and the controller differ too much");
        case KRB5_KDC_UNREACH:
        case KRB5_REALM_UNKNOWN:
            // The controllers answer, but not as KDCs: to a client the domain is out of
            // reach all the same.
            return Result::ldap(VEX_UNAVAILABLE, LDAP_UNAVAILABLE,
                                "no KDC of the domain can be reached to check the password")
                .because("no KDC of the domain can be reached to check the password: " + failure.text);
        default:
            return kerberosError(failure, "the password could not be checked");
    }
}

Result changeFailure(const ChangeFailure& failure) {
    const auto* kdc = std::get_if<KdcFailure>(&failure.why);
    const auto* ldap = std::get_if<LdapFailure>(&failure.why);
    const std::string& why = kdc != nullptr ? kdc->text : ldap->text;
    switch (failure.of) {
        // It was accepted a moment ago.
        case ChangeFailure::Of::OldPassword:
            return kdc != nullptr ? loginFailure(*kdc, {}, 0) : loginFailure(*ldap);
        case ChangeFailure::Of::NewPassword:
            return badNewPassword("the domain does not take this new password").because(why);
        case ChangeFailure::Of::Leave:
            return Result::ldap(VEX_REFUSED, LDAP_INSUFFICIENT_ACCESS,
                                "the account may not change its password")
                .because(why);
        default:
            if (kdc != nullptr) return kerberosError(*kdc, kNotSaid);
            return {VEX_DIRECTORY_ERROR, VEX_ERR_LDAP, ldap->code, kNotSaid,
                    std::string(kNotSaid) + ": " + why};
    }
}

Result loginFailure(const LdapFailure& failure) {
    if (failure.code != LDAP_INVALID_CREDENTIALS) return resultOf(failure);
    switch (reasonIn(failure.text)) {
        case 0x525:
            return noSuchUser();
        case 0x530:
        case 0x531:
            return accountRefused("the account may not log in here or now");
        case 0x532:
            return accountRefused("the password has expired");
        case 0x533:
            return accountRefused("the account is disabled");
        case 0x701:
            return accountRefused("the account has expired");
        case 0x773:
            return accountRefused("the password must be changed");
        case 0x775:
            return refusedUnseen("the account is locked out");  // said without regard to the password
        default:
            return wrongPassword();
    }
}

}  // namespace vexagent
