// SPDX-License-Identifier: Apache-2.0
#include "agent/directory/filter_shape.h"

#include <gtest/gtest.h>
#include <ldap.h>

#include <string>

#include "agent/directory/filter.h"

namespace vexagent {
namespace {

std::string repeated(const std::string& text, std::size_t count) {
    std::string whole;
    for (std::size_t i = 0; i < count; ++i) whole += text;
    return whole;
}

TEST(FilterShape, CountsPartsOfAKind) {
    const std::pair<const char*, std::size_t> cases[] = {
        {"(cn=a)", 1},
        {"cn=a", 1},
        {"(&(cn=a)(!(sn=b)))", 2},
        {" ( & (cn=a) (|(sn=b) (sn=c)) )", 3},
        {"(&(&(&(cn=a))))", 3},
        {"(cn=a*b*c*)", 3},
        {"(cn=\\2a)", 1},
    };
    for (const auto& [text, size] : cases) {
        EXPECT_EQ(shapeOf(text).size, size) << text;
        EXPECT_TRUE(shapeOf(text).whole) << text;
    }
}

int resultOfParsing(const std::string& text) {
    const Pool pool = newPool();
    ParseTree* tree = nullptr;
    return parseFilter(pool.get(), text, tree).errCode;
}

TEST(FilterText, IsOneFilterAndNothingBehindIt) {
    for (const char* text :
         {"", "(cn=a)", "cn=a", " (cn=a) ", "(&(cn=a)(sn=b))", "(|(cn=a))", "(!(cn=a))", "(cn=a*b)"})
        EXPECT_EQ(resultOfParsing(text), 0) << text;
    for (const char* text : {"(cn=a)(sn=b)", "(cn=a)x", "(objectGUID=*)(uid=ann)", "cn=a)", "cn=a)(uid=b",
                             "(&(cn=a)(sn=b))(uid=c)", "(&(cn=a))(", "(cn=a", "((cn=a))", ")", "(",
                             "(&(cn=a)x(sn=b))", "(member=CN=Ann (Sales),DC=example)"})
        EXPECT_EQ(resultOfParsing(text), LDAP_FILTER_ERROR) << text;
    EXPECT_EQ(resultOfParsing(std::string("(cn=a\0)", 7)), LDAP_FILTER_ERROR);
}

TEST(FilterText, AssertsOfAttributesOnly) {
    for (const char* text : {"(2.5.4.3=a)", "(OID.2.5.4.3=a)", "(cn:caseExactMatch:=a)",
                             "(cn:dn:2.5.13.5:=a)", "(_dn=a)", "(_GUID=a)", "(_own=a)"})
        EXPECT_EQ(resultOfParsing(text), 0) << text;
    for (const char* text : {"(=a)", "(1cn=a)", "(-cn=a)", "(cn.x=a)", "(c n=a)", "(&(cn=a)(.=b))",
                             "(!(1.=a))", "(c\nn=a)", "(cn:x y:=a)", "(cn:1..2:=a)", "(c\xc3\xa4=a)"})
        EXPECT_EQ(resultOfParsing(text), LDAP_FILTER_ERROR) << text;
}

TEST(FilterText, HasALimit) {
    const auto anyOf = [](const std::string& part, std::size_t count) {
        return "(|" + repeated(part, count) + ")";
    };
    EXPECT_EQ(resultOfParsing(anyOf("(memberUid=a)", kMostAssertions)), 0);
    EXPECT_EQ(resultOfParsing(anyOf("(memberUid=a)", kMostAssertions + 1)), LDAP_ADMINLIMIT_EXCEEDED);
    EXPECT_EQ(resultOfParsing(anyOf("(!(cn=a))", kMostAssertions)), LDAP_ADMINLIMIT_EXCEEDED);
    EXPECT_EQ(resultOfParsing("(cn=a" + repeated("*b", kMostAssertions) + ")"), 0);
    EXPECT_EQ(resultOfParsing("(cn=a" + repeated("*b", kMostAssertions + 1) + ")"), LDAP_ADMINLIMIT_EXCEEDED);
}

}  // namespace
}  // namespace vexagent
