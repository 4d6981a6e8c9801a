// SPDX-License-Identifier: Apache-2.0
#include "vorn/attribute_name.h"

#include <gtest/gtest.h>

#include <string>

namespace vorn {
namespace {

using namespace std::string_literals;

TEST(AttributeDescription, IsANameOrNumbersAndOptions) {
    for (const char* text :
         {"uid", "UID", "a", "x-own-2", "a-", "cn;lang-en", "userCertificate;binary", "a;b;c", "a;-", "a;1",
          "2.5.4.3", "0.9.2342.19200300.100.1.1", "1.0", "10.20", "1.2.840.113556.1.4.803", "2.5.4.3;binary"})
        EXPECT_TRUE(isAttributeDescription(text)) << text;
}

TEST(AttributeDescription, IsNothingElse) {
    const std::string cases[] = {
        "", " ", "uid ", " uid", "u id", "1uid", "-uid", "_uid", "a_b", "ü", "a.b", "OID.2.5.4.3",
        // numbers
        "2", "2.", ".5", "2..5", "02.5", "2.05", "2.5.", "2.5.4.x", "-2.5",
        // options
        ";", "a;", ";a", "a;;b", "a;b_c", "a;b=c", "a;b;",
        // what would write a filter of its own
        "objectGUID=*)(uid", "userAccountControl:1.2.840.113556.1.4.803:", "uidNumber>", "uidNumber<", "uid~",
        "uid:", "uid\n", "\nuid", "uid\r\nx", "uid\0"s, "uid\0x"s, "\0"s, "uid\x7f", "uid\t", "uid*", "uid(",
        "uid)", "uid\\", "uid=", "uid&", "uid|", "!uid"};
    for (const std::string& text : cases) EXPECT_FALSE(isAttributeDescription(text)) << text;
}

TEST(AttributeName, ANumberMayHaveAWordInFront) {
    for (const char* name : {"uid", "2.5.4.3", "OID.2.5.4.3", "oid.2.5.4.3;binary"})
        EXPECT_TRUE(isAttributeName(name)) << name;
    for (const char* name : {"", "OID.", "OID.cn", "OID.1", "OID.OID.1.2", "1.02", "uidNumber>", "_dn"})
        EXPECT_FALSE(isAttributeName(name)) << name;
}

TEST(AttributeName, ANumberIsToldFromAName) {
    for (const char* name : {"2.5.4.3", "OID.2.5.4.3", "oid.2.5.4.3", "1", "OID."})
        EXPECT_TRUE(isNumericName(name)) << name;
    for (const char* name : {"", "cn", "oid", "oidx", "o1"}) EXPECT_FALSE(isNumericName(name)) << name;
    EXPECT_EQ(numberOf("OID.2.5.4.3;binary"), "2.5.4.3");
    EXPECT_EQ(numberOf("2.5.4.3"), "2.5.4.3");
    EXPECT_EQ(withoutOptions("cn;binary;x"), "cn");
}

}  // namespace
}  // namespace vorn
