// SPDX-License-Identifier: Apache-2.0
#include "vorn/secret_names.h"

#include <gtest/gtest.h>

namespace vorn {
namespace {

TEST(SecretNames, AreKnownInAnySpellingAndWithOptions) {
    for (const char* name : {"userPassword",
                             "USERPASSWORD",
                             "unixUserPassword",
                             "unicodePwd",
                             "unicodepwd;binary",
                             "dBCSPwd",
                             "ntPwdHistory",
                             "lmPwdHistory",
                             "supplementalCredentials",
                             "msDS-ManagedPassword",
                             "msDS-ManagedPasswordPreviousId",
                             "initialAuthIncoming",
                             "initialAuthOutgoing",
                             "trustAuthIncoming",
                             "trustAuthOutgoing",
                             "currentValue",
                             "priorValue",
                             "msDS-ExecuteScriptPassword",
                             "@IDXATTR",
                             "@"})
        EXPECT_TRUE(isSecretName(name)) << name;
    for (const char* name : {"", "cn", "userPasswordHint", "pwdLastSet", "userPrincipalName"})
        EXPECT_FALSE(isSecretName(name)) << name;
}

TEST(SecretNames, AreKnownByWhatTheySoundLike) {
    for (const char* name : {"userPKCS12",
                             "msSFU30Password",
                             "sambaNTPassword",
                             "sambaLMPassword",
                             "sambaPasswordHistory",
                             "clearTextPassword",
                             "krbPrincipalKey",
                             "krb5Key",
                             "krbPwdHistory",
                             "pwdHistory",
                             "msFVE-RecoveryPassword",
                             "msLAPS-Password",
                             "msLAPS-EncryptedPassword",
                             "msLAPS-EncryptedPasswordHistory",
                             "msLAPS-EncryptedDSRMPassword",
                             "ms-Mcs-AdmPwd",
                             "ms-Mcs-AdmPwdHistory",
                             "msPKIAccountCredentials",
                             "msPKI-CredentialRoamingTokens",
                             "msTPM-OwnerInformation",
                             "pekList",
                             "adminPassword",
                             "oldPasswd",
                             "sshPrivateKey",
                             "radiusSharedSecret"})
        EXPECT_TRUE(isSecretName(name)) << name;
    for (const char* name : {"badPasswordTime",
                             "badPwdCount",
                             "maxPwdAge",
                             "minPwdLength",
                             "pwdProperties",
                             "pwdHistoryLength",
                             "pwdChangedTime",
                             "msDS-PasswordSettingsPrecedence",
                             "msDS-UserPasswordExpiryTimeComputed",
                             "msDS-UserPasswordNotRequired",
                             "msDS-UserDontExpirePassword",
                             "msLAPS-PasswordExpirationTime",
                             "ms-Mcs-AdmPwdExpirationTime",
                             "sambaPwdLastSet",
                             "sambaPwdMustChange",
                             "sambaLogonToChgPwd",
                             "shadowLastChange",
                             "sshPublicKey",
                             "secretary",
                             "userCertificate",
                             "description"})
        EXPECT_FALSE(isSecretName(name)) << name;
}

TEST(SecretNames, ANumberMayBeOne) {
    for (const char* name : {"1.2.840.113556.1.4.1910", "OID.1.2.840.113556.1.4.1910", "oid.2.5.4.35;binary"})
        EXPECT_TRUE(isSecretName(name)) << name;
    EXPECT_FALSE(isSecretName("oidless"));
}

TEST(SecretNames, WhatAFilterAssertsOfThemIsNotShown) {
    const std::pair<const char*, const char*> cases[] = {
        {"(cn=a)", "(cn=a)"},
        {"", ""},
        {"cn=a", "cn=a"},
        {"userPassword=a", "userPassword=***"},
        {"(userPassword=*)", "(userPassword=*)"},
        {"(&(cn=a)(UserPassword=x)(uid=b))", "(&(cn=a)(UserPassword=***)(uid=b))"},
        {"(|(!(unicodePwd>=x))(sn=*y*))", "(|(!(unicodePwd>=***))(sn=*y*))"},
        {"(unixUserPassword=S3c*r*t)", "(unixUserPassword=***)"},
        {"(userPassword:caseExactMatch:=x=y)", "(userPassword:caseExactMatch:=***)"},
        {"(userPassword;binary=x)", "(userPassword;binary=***)"},
        {"(1.2.840.113556.1.4.1910=S3c*)", "(1.2.840.113556.1.4.1910=***)"},
        {"( userPassword = x)", "( userPassword =***)"},
        {"(userPassword=\\28x\\29)", "(userPassword=***)"},
        // A value in the form of a DN may hold what looks like the filter's end.
        {"(&(userPassword=a)(dc=b)(cn=c))", "(&(userPassword=***"},
        {"(userPassword", "(userPassword"},
        {"(userPassword=x", "(userPassword=***"}};
    for (const auto& [filter, shown] : cases) EXPECT_EQ(withoutSecrets(filter), shown);
}

}  // namespace
}  // namespace vorn
