// SPDX-License-Identifier: Apache-2.0
#include "standard/filter_key.h"

#include <gmock/gmock.h>

#include "translate/filter_builder_testing.h"

namespace standard {
namespace {

class FilterKey : public testing::Test {
  protected:
    std::string of(const Filter* filter, std::size_t most = 1000) {
        std::string key = ">";
        appendFilterKey(filter, most, &key);
        return key.substr(1);
    }
    std::string of(std::string_view text) { return of(m_builder.parse(text)); }

    FilterBuilder m_builder;
};

TEST_F(FilterKey, HasEveryPartOfAnAssertion) {
    for (const char* text : {"(uid=ann)", "(uid>=ann)", "(uid<=ann)", "(uid~=ann)", "(uid=*)", "(!(uid=ann))",
                             "(&(a=1)(b=2))", "(|(a=1)(b=2))"})
        EXPECT_EQ(of(text), text);
    EXPECT_EQ(of("(cn=a*b*c)"), "(cn:*=a*b*c)");
    EXPECT_EQ(of("(cn=*b*)"), "(cn:*=*b*)");
}

TEST_F(FilterKey, IsTheSameInWhateverOrderElementsStand) {
    EXPECT_EQ(of("(|(b=2)(c=3)(a=1))"), "(|(a=1)(b=2)(c=3))");
    EXPECT_EQ(of("(&(|(d=4)(c=3))(|(b=2)(a=1)))"), "(&(|(a=1)(b=2))(|(c=3)(d=4)))");
}

TEST_F(FilterKey, HasEveryElementOnce) {
    EXPECT_EQ(of("(&(a=1)(b=2)(a=1))"), "(&(a=1)(b=2))");
    EXPECT_EQ(of("(&(a=1)(a=1))"), "(a=1)");
}

TEST_F(FilterKey, HasNoListInAListOfItsSort) {
    EXPECT_EQ(of("(&(a=1)(&(b=2)(&(c=3))))"), "(&(a=1)(b=2)(c=3))");
    EXPECT_EQ(of("(&(a=1)(|(b=2)(c=3)))"), "(&(a=1)(|(b=2)(c=3)))");
    EXPECT_EQ(of("(|(&(a=1)))"), "(a=1)");
}

TEST_F(FilterKey, OfAListWithoutElementsIsWhatItComesTo) {
    EXPECT_EQ(of(m_builder.list(LDAP_FILTER_AND, {})), "(?=true)");
    EXPECT_EQ(of(m_builder.list(LDAP_FILTER_OR, {})), "(?=false)");
    EXPECT_EQ(of("(#6)"), "(?=true)");
    EXPECT_EQ(of("(#5)"), "(?=false)");
    EXPECT_EQ(of("(#-1)"), "(?=undefined)");
}

TEST_F(FilterKey, OfAnAttributeThatNobodyKnowsIsUndefined) {
    EXPECT_EQ(of("(?colour=red)"), "(?=undefined)");
    EXPECT_EQ(of("(!(?colour=*))"), "(!(?=undefined))");
}

TEST_F(FilterKey, CannotBeForgedByAValue) {
    EXPECT_EQ(of("(cn=a\\29\\28b=c\\2A\\00)"), "(cn=a\\29\\28b=c\\2A\\00)");
    EXPECT_NE(of("(cn=a\\2Ab)"), of("(cn=a*b)"));
    EXPECT_NE(of(m_builder.substrings("cn", std::nullopt, {}, std::nullopt)), of("(cn=*)"));
}

TEST_F(FilterKey, TellsTheRuleOfAnExtensibleMatch) {
    Filter* const plain = m_builder.extensible("cn", "ann");
    Filter* const ofDn = m_builder.extensible("cn", "ann");
    ofDn->f_mr_dnattrs = 1;
    Filter* const ruled = m_builder.extensible("", "ann");
    char oid[] = "1.2.3";
    MatchingRule rule{};
    rule.smr_oid = oid;
    ruled->f_mr_rule = &rule;
    EXPECT_EQ(of(plain), "(cn::=ann)");
    EXPECT_EQ(of(ofDn), "(cn:dn::=ann)");
    EXPECT_EQ(of(ruled), "(:1.2.3:=ann)");
}

TEST_F(FilterKey, StopsWhereItWouldBeTooLong) {
    std::vector<Filter*> many;
    for (int i = 0; i < 100'000; ++i) many.push_back(m_builder.assertion(LDAP_FILTER_EQUALITY, "cn", "ann"));
    const Filter* long_one = m_builder.list(LDAP_FILTER_OR, many);
    EXPECT_THAT(of(long_one, 50).size(), testing::AllOf(testing::Ge(50U), testing::Lt(80U)));
}

}  // namespace
}  // namespace standard
