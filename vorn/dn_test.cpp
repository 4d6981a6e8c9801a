// SPDX-License-Identifier: Apache-2.0
#include "vorn/dn.h"

#include <gtest/gtest.h>

namespace vorn {
namespace {

using namespace std::string_literals;

TEST(DN, IsDN) {
    const std::string dns[] = {"CN=x",           "CN=x,DC=a",     "CN=x , DC=a",
                               "cn=a+sn=b,dc=c", "cn=a\\,b,dc=c", "cn=a\\2cb,dc=c",
                               "1.2.3=x,dc=y",   "cn=",           "cn=#0403ff,dc=c"};
    for (const std::string& dn : dns) EXPECT_TRUE(DN::isDN(dn)) << dn;
    const std::string others[] = {
        "",         "x",           "$",          "cn=a,", "cn=a,,dc=b", "=x", "cn=a,dc=b\0"s,
        "<GUID=1>", "example.com", "jane@x.com", "cn=a\\"};
    for (const std::string& text : others) EXPECT_FALSE(DN::isDN(text)) << text;
}

TEST(DN, ParentKeepsTheSpelling) {
    const struct {
        const char* dn;
        const char* parent;
    } cases[] = {
        {"CN=Jane,OU=People,DC=Example,DC=com", "OU=People,DC=Example,DC=com"},
        {"CN=Doe\\, Jane,DC=x", "DC=x"},
        {"CN=Doe\\2C Jane,dC=x", "dC=x"},
        {"CN=a\\\\,DC=x", "DC=x"},
        {"CN=a+SN=b,DC=x", "DC=x"},
        {"CN=x , OU = y, DC=z", "OU = y, DC=z"},
        {"CN=,DC=x", "DC=x"},
        {"CN=x,CN=caf\xC3\xA9,DC=\\C3\\A9", "CN=caf\xC3\xA9,DC=\\C3\\A9"},
        {"DC=com", ""},
        {"", ""},
        {"no name", ""},
        {"CN=x,no name", ""},
    };
    for (const auto& [dn, parent] : cases) EXPECT_EQ(DN::parent(dn), parent) << dn;
}

TEST(DN, DomainFromDN) {
    const struct {
        const char* dn;
        const char* domain;
    } cases[] = {
        {"CN=x,DC=Example,DC=com", "Example.com"},
        {"CN=x , dc=example , 0.9.2342.19200300.100.1.25=com", "example.com"},
        {"DC=example", "example"},
        {"CN=x,OU=y", ""},
        {"DC=host,DC=zone,CN=MicrosoftDNS,DC=example,DC=com", "example.com"},
        {"DC=example,OU=x", ""},
        {"", ""},
        {"no name,DC=com", ""},
    };
    for (const auto& [dn, domain] : cases) EXPECT_EQ(DN::domainFromDN(dn), domain) << dn;
}

TEST(DN, DnFromDomain) {
    EXPECT_EQ(DN::dnFromDomain("example.com"), "DC=example,DC=com");
    EXPECT_EQ(DN::dnFromDomain("Corp"), "DC=Corp");
    EXPECT_EQ(DN::dnFromDomain("example.com."), "DC=example,DC=com");
    EXPECT_EQ(DN::dnFromDomain("a,b.com"), "DC=a\\,b,DC=com");
    EXPECT_EQ(DN::dnFromDomain(""), "");
    EXPECT_EQ(DN::domainFromDN(DN::dnFromDomain("a.b.c")), "a.b.c");
}

TEST(DN, EscapeValue) {
    const struct {
        std::string value;
        const char* escaped;
    } cases[] = {
        {"Jane Doe", "Jane Doe"},
        {"Doe, Jane", "Doe\\, Jane"},
        {"a\"b+c;d<e>f\\g", "a\\\"b\\+c\\;d\\<e\\>f\\\\g"},
        {"a=b", "a=b"},
        {" a b ", "\\ a b\\ "},
        {" ", "\\ "},
        {"#1", "\\#1"},
        {"1#", "1#"},
        {"a\0b\nc\x7f"s, "a\\00b\\0Ac\\7F"},
        {"caf\xC3\xA9", "caf\xC3\xA9"},
        {"", ""},
    };
    for (const auto& [value, escaped] : cases) {
        EXPECT_EQ(DN::escapeValue(value), escaped);
        const std::string dn = "CN=" + DN::escapeValue(value) + ",DC=x";
        EXPECT_TRUE(DN::isDN(dn)) << dn;
        EXPECT_EQ(DN::parent(dn), "DC=x") << dn;
    }
}

TEST(DN, HoldsNul) {
    for (const std::string& dn :
         {"cn=ann\0x,dc=x"s, "cn=ann\\00x,dc=x"s, "cn=ann,dc=x\\00"s, "\0"s, "cn=a\\\\\\00"s, "cn=a\\\0b"s})
        EXPECT_TRUE(DN::holdsNul(dn)) << dn;
    for (const std::string& dn : {""s, "cn=ann,dc=x"s, "cn=a\\\\00b"s, "cn=a00b"s, "cn=a\\0Ab"s,
                                  "cn=a\\,00b"s, "cn=a\\0"s, "cn=a\\"s})
        EXPECT_FALSE(DN::holdsNul(dn)) << dn;
}

}  // namespace
}  // namespace vorn
