// SPDX-License-Identifier: Apache-2.0
#include "agent/directory/attributes.h"

#include <gtest/gtest.h>

namespace vexagent {
namespace {

TEST(Attributes, NumbersAreThoseOfUnixAndOfAccounts) {
    for (const char* name : {"uidNumber", "GIDNUMBER", "userAccountControl", "accountExpires", "shadowMax",
                             "ipServicePort", "instanceType"})
        EXPECT_TRUE(isIntegerAttribute(name)) << name;
    for (const char* name : {"uid", "uidNumbers", "uidNumbe", "", "objectSid", "telephoneNumber"})
        EXPECT_FALSE(isIntegerAttribute(name)) << name;
}

TEST(Attributes, TextIgnoresCaseButNotNumbersBytesDnsAndNamesOfUnix) {
    for (const char* name : {"cn", "sAMAccountName", "mail", "uid", "homeDirectory", "anythingElse"})
        EXPECT_TRUE(ignoresCase(name)) << name;
    for (const char* name : {"dn", "DistinguishedName", "uidNumber", "objectGUID", "memberUid", "MEMBERUID",
                             "unixHomeDirectory", "loginShell", "nisNetgroupTriple"})
        EXPECT_FALSE(ignoresCase(name)) << name;
}

TEST(Attributes, BinaryOnesAreKnownByNameWhateverTheirOptions) {
    for (const char* name : {"objectGUID", "OBJECTSID", "thumbnailPhoto", "userCertificate",
                             "userCertificate;binary", "jpegPhoto;lang-en", "userPassword"})
        EXPECT_TRUE(isBinaryAttribute(name)) << name;
    for (const char* name : {"cn", "description;lang-en", "objectGUIDs", "mail"})
        EXPECT_FALSE(isBinaryAttribute(name)) << name;
}

TEST(Attributes, TheOptionBinaryMakesAnyOneBinary) {
    EXPECT_TRUE(isBinaryAttribute("description;binary"));
    EXPECT_TRUE(isBinaryAttribute("description;lang-en;BINARY"));
    EXPECT_FALSE(isBinaryAttribute("binary"));
}

TEST(Attributes, NoneIsCountedAmongNumbersAndExactOnesTwice) {
    for (const std::string_view number : integerAttributes())
        for (const std::string_view exact : exactAttributes()) EXPECT_NE(number, exact);
}

}  // namespace
}  // namespace vexagent
