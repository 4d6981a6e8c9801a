#include "agent/secrets.h"

#include <gtest/gtest.h>

namespace vexagent {
namespace {

TEST(Secrets, AreKnownInAnySpellingAndWithOptions) {
    for (const char* name :
         {"userPassword", "USERPASSWORD", "unixUserPassword", "unicodePwd", "unicodepwd;binary", "dBCSPwd",
          "ntPwdHistory", "lmPwdHistory", "supplementalCredentials", "msDS-ManagedPassword",
          "initialAuthIncoming", "initialAuthOutgoing", "trustAuthIncoming", "trustAuthOutgoing",
          "currentValue", "priorValue", "@IDXATTR", "@"})
        EXPECT_TRUE(isSecretAttribute(name)) << name;
    for (const char* name : {"", "cn", "userPasswordHint", "pwdLastSet", "userPrincipalName"})
        EXPECT_FALSE(isSecretAttribute(name)) << name;
}

TEST(Secrets, AFilterThatNamesOneIsNotForTheLog) {
    EXPECT_TRUE(mentionsSecret("(&(cn=a)(UserPassword=x))"));
    EXPECT_FALSE(mentionsSecret("(cn=a)"));
}

}  // namespace
}  // namespace vexagent
