// SPDX-License-Identifier: Apache-2.0
#include "agent/directory/tree.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vexagent {
namespace {

class TreeTest : public ::testing::Test {
  protected:
    // What is left of the filter once each assertion is decided by its attribute: "all"
    // and "nothing" say so, others are some.
    std::string simplified(const std::string& filter) {
        ParseTree* tree = ldb_parse_tree(m_pool.get(), filter.c_str());
        EXPECT_NE(tree, nullptr) << filter;
        const Selection left = simplify(tree, false, [this](ParseTree*& assertion, bool negated) {
            const std::string name = assertedAttribute(assertion);
            m_asked.push_back((negated ? "!" : "") + name);
            return name == "all" ? Selection::All : name == "nothing" ? Selection::Nothing : Selection::Some;
        });
        if (left == Selection::All) return "ALL";
        if (left == Selection::Nothing) return "NOTHING";
        return ldb_filter_from_tree(m_pool.get(), tree);
    }

    Pool m_pool = newPool();
    std::vector<std::string> m_asked;
};

TEST_F(TreeTest, AnAndLosesWhatIsAlwaysTrueAndEndsWithWhatNeverIs) {
    EXPECT_EQ(simplified("(&(a=1)(all=*)(b=2))"), "(&(a=1)(b=2))");
    EXPECT_EQ(simplified("(&(a=1)(nothing=*)(b=2))"), "NOTHING");
    EXPECT_EQ(simplified("(&(all=*)(all=*))"), "ALL");
}

TEST_F(TreeTest, AnOrLosesWhatIsNeverTrueAndEndsWithWhatAlwaysIs) {
    EXPECT_EQ(simplified("(|(a=1)(nothing=*)(b=2))"), "(|(a=1)(b=2))");
    EXPECT_EQ(simplified("(|(a=1)(all=*)(b=2))"), "ALL");
    EXPECT_EQ(simplified("(|(nothing=*)(nothing=*))"), "NOTHING");
}

TEST_F(TreeTest, OneElementStandsAlone) {
    EXPECT_EQ(simplified("(&(a=1)(all=*))"), "(a=1)");
    EXPECT_EQ(simplified("(|(nothing=*)(a=1))"), "(a=1)");
}

TEST_F(TreeTest, ANotTurnsAroundWhatIsDecided) {
    EXPECT_EQ(simplified("(!(all=*))"), "NOTHING");
    EXPECT_EQ(simplified("(!(nothing=*))"), "ALL");
    EXPECT_EQ(simplified("(!(a=1))"), "(!(a=1))");
    EXPECT_EQ(simplified("(&(a=1)(!(|(nothing=*)(!(all=*)))))"), "(a=1)");
}

TEST_F(TreeTest, WhoDecidesIsToldWhetherAnOddNumberOfNotsStandsAbove) {
    simplified("(&(a=1)(!(|(b=1)(!(c=1)))))");
    EXPECT_EQ(m_asked, (std::vector<std::string>{"a", "!b", "c"}));
}

TEST_F(TreeTest, WhatDecidesTheWholeEndsTheQuestions) {
    simplified("(&(nothing=*)(a=1))");
    EXPECT_EQ(m_asked, std::vector<std::string>{"nothing"});
}

TEST_F(TreeTest, EveryKindOfAssertionHasItsAttribute) {
    for (const char* filter : {"(a=1)", "(a=*)", "(a=x*)", "(a>=1)", "(a<=1)", "(a~=1)", "(a:1.2.3:=1)"}) {
        ParseTree* tree = ldb_parse_tree(m_pool.get(), filter);
        ASSERT_NE(tree, nullptr) << filter;
        EXPECT_STREQ(assertedAttribute(tree), "a") << filter;
        renameAsserted(tree, "other");
        EXPECT_STREQ(assertedAttribute(tree), "other") << filter;
    }
}

TEST_F(TreeTest, OperatorsHaveNoAttribute) {
    for (const char* filter : {"(&(a=1)(b=1))", "(|(a=1)(b=1))", "(!(a=1))"})
        EXPECT_EQ(assertedAttribute(ldb_parse_tree(m_pool.get(), filter)), nullptr) << filter;
}

}  // namespace
}  // namespace vexagent
