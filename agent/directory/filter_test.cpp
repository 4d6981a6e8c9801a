// SPDX-License-Identifier: Apache-2.0
// What becomes of a client's filter. How deep and long one may be: filter_shape_test.
#include "agent/directory/filter.h"

#include <gtest/gtest.h>
#include <ldap.h>

#include <string>

namespace vexagent {
namespace {

class FilterTest : public ::testing::Test {
  protected:
    void SetUp() override {
        m_context.ldb = m_ldb.get();
        m_context.rootDn = "DC=example,DC=com";
    }

    Result parse(const std::string& text) { return parseFilter(m_pool.get(), text, m_tree); }

    // The rewritten filter as text; ALL or NOTHING where it decides by itself.
    std::string rewritten(const std::string& text) {
        const Result result = parse(text);
        if (!result.ok()) return "refused: " + result.errText;
        switch (rewriteAssertions(m_pool.get(), m_tree, m_context)) {
            case Selection::All:
                return "ALL";
            case Selection::Nothing:
                return "NOTHING";
            case Selection::Some:
                break;
        }
        return ldb_filter_from_tree(m_pool.get(), m_tree);
    }

    Talloc<ldb_context> m_ldb = newLdb();
    Pool m_pool = newPool();
    ParseTree* m_tree = nullptr;
    FilterContext m_context;
};

TEST_F(FilterTest, NoTextIsEveryObject) {
    EXPECT_TRUE(parse("").ok());
    EXPECT_EQ(m_tree, nullptr);
    EXPECT_EQ(rewritten(""), "ALL");
}

TEST_F(FilterTest, WhatIsNoFilterIsABadOne) {
    for (const std::string& text :
         {std::string("("), std::string("(cn=a"), std::string("(cn=a))"), std::string("(cn=a)(cn=b)"),
          std::string("(cn=a)junk"), std::string("(cn=a\0)", 7), std::string("(c n=a)"), std::string("(=a)"),
          std::string("(cn:not a rule:=a)"), std::string("(&(cn=a)(b>d=x))")}) {
        const Result result = parse(text);
        EXPECT_EQ(result.code, VEX_BAD_FILTER) << text;
        EXPECT_EQ(result.errSystem, VEX_ERR_LDAP);
        EXPECT_EQ(result.errCode, LDAP_FILTER_ERROR);
        EXPECT_EQ(result.errText, "bad search filter");
    }
}

TEST_F(FilterTest, TooManyPartsAreRefused) {
    const auto many = [](std::size_t count) {
        std::string text = "(|";
        for (std::size_t i = 0; i < count; ++i) text += "(a=1)";
        return text + ")";
    };
    EXPECT_TRUE(parse(many(kMostAssertions - 1)).ok());
    const Result result = parse(many(kMostAssertions + 1));
    EXPECT_EQ(result.code, VEX_REFUSED);
    EXPECT_EQ(result.errCode, LDAP_ADMINLIMIT_EXCEEDED);
    EXPECT_EQ(result.errText, "the search filter has too many parts");
}

TEST_F(FilterTest, TheAgentsOwnNamesAreThoseOfTheDirectory) {
    EXPECT_EQ(rewritten("(_dn=*)"), "(distinguishedName=*)");
    EXPECT_EQ(rewritten("(_GUID=*)"), "(objectGUID=*)");
    EXPECT_EQ(rewritten("(&(_objectcategory=*)(cn=_dn))"), "(&(objectCategory=*)(cn=_dn))");
    EXPECT_EQ(rewritten("(_other=1)"), "(own-other=1)") << "nothing has it";
}

TEST_F(FilterTest, AShortCategoryIsItsDn) {
    EXPECT_EQ(rewritten("(objectCategory=person)"),
              "(objectCategory=CN=Person,CN=Schema,CN=Configuration,DC=example,DC=com)");
    EXPECT_EQ(rewritten("(objectCategory=CN=Person,DC=x)"), "(objectCategory=CN=Person,DC=x)");
    EXPECT_EQ(rewritten("(objectCategory=*)"), "(objectCategory=*)");
}

TEST_F(FilterTest, NumbersAreComparedAsPlainDecimals) {
    EXPECT_EQ(rewritten("(uidNumber=0020001)"), "(uidNumber=20001)");
    EXPECT_EQ(rewritten("(uidNumber=-1)"), "(uidNumber=-1)");
    EXPECT_EQ(rewritten("(uidNumber>=010)"), "(uidNumber>=10)");
    EXPECT_EQ(rewritten("(uidNumber<=010)"), "(uidNumber<=10)");
    EXPECT_EQ(rewritten("(cn>=010)"), "(cn>=010)");
    EXPECT_EQ(rewritten("(uidNumber=*)"), "(uidNumber=*)");
}

TEST_F(FilterTest, WhatNoStoredValueCanMatchIsNothing) {
    EXPECT_EQ(rewritten("(uidNumber=abc)"), "NOTHING");
    EXPECT_EQ(rewritten("(uidNumber=99999999999999999999)"), "NOTHING");
    EXPECT_EQ(rewritten("(uidNumber>=abc)"), "NOTHING");
    EXPECT_EQ(rewritten("(objectGUID=short)"), "NOTHING");
    EXPECT_EQ(rewritten("(objectSid=S-1-nonsense)"), "NOTHING");
    EXPECT_EQ(rewritten("(member=not a dn)"), "NOTHING");
    EXPECT_EQ(rewritten("(member=)"), "NOTHING");
    EXPECT_EQ(rewritten("(distinguishedName=@INDEXLIST)"), "NOTHING") << "LDB's own records";
    EXPECT_EQ(rewritten("(&(cn=a)(uidNumber=abc))"), "NOTHING");
    EXPECT_EQ(rewritten("(|(cn=a)(uidNumber=abc))"), "(cn=a)");
    EXPECT_EQ(rewritten("(!(uidNumber=abc))"), "ALL");
}

TEST_F(FilterTest, TextFormsOfIdentifiersBecomeTheirBytes) {
    parse("(objectGUID=6f1c2b7e-0d54-4a39-9c1b-2e5f8a7d1001)");
    EXPECT_EQ(rewriteAssertions(m_pool.get(), m_tree, m_context), Selection::Some);
    EXPECT_EQ(bytesOf(m_tree->u.equality.value),
              "\x7e\x2b\x1c\x6f\x54\x0d\x39\x4a\x9c\x1b\x2e\x5f\x8a\x7d\x10\x01");
    parse("(objectSid=S-1-5-32-544)");
    EXPECT_EQ(rewriteAssertions(m_pool.get(), m_tree, m_context), Selection::Some);
    EXPECT_EQ(bytesOf(m_tree->u.equality.value),
              std::string_view("\x01\x02\0\0\0\0\0\x05\x20\0\0\0\x20\x02\0\0", 16));
}

TEST_F(FilterTest, BytesOfIdentifiersStay) {
    parse("(objectGUID=\\01\\02\\03\\04\\05\\06\\07\\08\\09\\0a\\0b\\0c\\0d\\0e\\0f\\10)");
    EXPECT_EQ(rewriteAssertions(m_pool.get(), m_tree, m_context), Selection::Some);
    EXPECT_EQ(bytesOf(m_tree->u.equality.value).size(), 16u);
    EXPECT_EQ(m_tree->u.equality.value.data[15], 0x10);
}

TEST_F(FilterTest, DnsAreSpelledAsLdbDoes) {
    EXPECT_EQ(rewritten("(member=CN=Ann , OU=People, DC=x)"), "(member=CN=Ann,OU=People,DC=x)");
    EXPECT_EQ(rewritten("(distinguishedName=CN=a,  DC=x)"), "(distinguishedName=CN=a,DC=x)");
    EXPECT_EQ(rewritten("(manager=CN=a,OU=b)"), "(manager=CN=a,OU=b)") << "others are left to the directory";
}

TEST_F(FilterTest, AnAssertionOnASecretIsUndefinedAndSoIsItsNegation) {
    EXPECT_EQ(rewritten("(unicodePwd=S*)"), "NOTHING");
    EXPECT_EQ(rewritten("(!(unicodePwd=S*))"), "NOTHING");
    EXPECT_EQ(rewritten("(|(cn=a)(userPassword=*))"), "(cn=a)");
    EXPECT_EQ(rewritten("(&(cn=a)(!(!(userPassword>=a))))"), "NOTHING");
}

TEST_F(FilterTest, ANumberThatTheSchemaDoesNotKnowIsUndefinedToo) {
    EXPECT_EQ(rewritten("(1.2.840.113556.1.4.1910=S*)"), "NOTHING");
    EXPECT_EQ(rewritten("(!(OID.2.5.4.3=a))"), "NOTHING");
}

TEST_F(FilterTest, AMatchingRuleNeedsAnAttribute) {
    EXPECT_EQ(rewritten("(cn:1.2.3:=a)"), "(cn:1.2.3:=a)");
    EXPECT_EQ(rewritten("(:1.2.3:=a)"), "refused: bad search filter")
        << "LDB knows no match of any attribute";
}

TEST_F(FilterTest, OutsideTheZonesViewMemberUidIsAnAttributeLikeAnyOther) {
    EXPECT_EQ(rewritten("(memberUid=ann)"), "(memberUid=ann)");
}

TEST_F(FilterTest, InTheZonesViewMemberUidIsThePersonsGroups) {
    m_context.groupsOf = [](std::string_view name) {
        return name == "ann" ? std::vector<std::string>{"0123456789abcdef"} : std::vector<std::string>{};
    };
    EXPECT_EQ(rewritten("(memberUid=ann)"), "(|(memberUid=ann)(objectGUID=0123456789abcdef))");
    EXPECT_EQ(rewritten("(memberUid=ben)"), "(|(memberUid=ben))") << "what is stored may still name him";
    EXPECT_EQ(rewritten("(memberUid=*)"), "(|(memberUid=*)(member=*))");
    EXPECT_EQ(rewritten("(memberUid=a*)"), "(memberUid=a*)") << "sees what is stored";
}

TEST_F(FilterTest, WhoIsAskedFirstDecidesAllButSecrets) {
    std::vector<std::string> asked;
    m_context.first = [&](void*, ParseTree*& assertion) -> std::optional<Selection> {
        asked.emplace_back(assertedAttribute(assertion));
        if (asked.back() == "cn") return Selection::All;
        return std::nullopt;
    };
    EXPECT_EQ(rewritten("(&(cn=a)(uidNumber=07)(!(unicodePwd=x)))"), "NOTHING");
    EXPECT_EQ(asked, (std::vector<std::string>{"cn", "uidNumber"}));
    EXPECT_EQ(rewritten("(&(cn=a)(uidNumber=07))"), "(uidNumber=7)");
}

TEST_F(FilterTest, TheCheapestElementsOfEveryAndComeFirst) {
    parse("(&(long=1)(|(zz=1)(b=1))(!(&(longer=1)(a=1)))(c=1)(d=1))");
    sortAnds(m_tree, [](const ParseTree* tree) {
        const char* name = assertedAttribute(tree);
        return name == nullptr ? 100 : static_cast<int>(std::string(name).size());
    });
    EXPECT_STREQ(ldb_filter_from_tree(m_pool.get(), m_tree),
                 "(&(c=1)(d=1)(long=1)(|(zz=1)(b=1))(!(&(a=1)(longer=1))))");
}

TEST_F(FilterTest, NewPartsAreAsLdbParsesThem) {
    ParseTree* both = newList(m_pool.get(), LDB_OP_AND,
                              {newEquality(m_pool.get(), "cn", "a)b"), newPresence(m_pool.get(), "uid")});
    EXPECT_STREQ(ldb_filter_from_tree(m_pool.get(), both), "(&(cn=a\\29b)(uid=*))");
}

}  // namespace
}  // namespace vexagent
