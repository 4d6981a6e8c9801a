// SPDX-License-Identifier: Apache-2.0
#include "standard/agent_filter.h"

#include <gtest/gtest.h>

namespace standard {
namespace {

using Operator = AgentFilter::Operator;

AgentFilter both(const AgentFilter& a, const AgentFilter& b) {
    return AgentFilter::combine(Operator::And, {a, b});
}

AgentFilter either(const AgentFilter& a, const AgentFilter& b) {
    return AgentFilter::combine(Operator::Or, {a, b});
}

const AgentFilter kA = AgentFilter::of("(a=1)");
const AgentFilter kB = AgentFilter::of("(b=2)");
const AgentFilter kC = AgentFilter::of("(c=3)");

TEST(AnAgentsFilter, OfNothingDecidesAnAndAndIsDroppedFromAnOr) {
    EXPECT_TRUE(both(kA, AgentFilter::nothing()).isNothing());
    EXPECT_TRUE(both(AgentFilter::all(), AgentFilter::nothing()).isNothing());
    EXPECT_EQ(either(kA, AgentFilter::nothing()).text(), "(a=1)");
    EXPECT_TRUE(either(AgentFilter::nothing(), AgentFilter::nothing()).isNothing());
}

TEST(AnAgentsFilter, OfAllDecidesAnOrAndIsDroppedFromAnAnd) {
    EXPECT_TRUE(either(kA, AgentFilter::all()).isAll());
    EXPECT_TRUE(either(AgentFilter::nothing(), AgentFilter::all()).isAll());
    EXPECT_EQ(both(AgentFilter::all(), kA).text(), "(a=1)");
    EXPECT_TRUE(both(AgentFilter::all(), AgentFilter::all()).isAll());
}

TEST(AnAgentsFilter, OfNoElementsIsAllForAnAndAndNothingForAnOr) {
    EXPECT_TRUE(AgentFilter::combine(Operator::And, {}).isAll());
    EXPECT_TRUE(AgentFilter::combine(Operator::Or, {}).isNothing());
}

TEST(AnAgentsFilter, HasItsElementsInOrderAndOnce) {
    EXPECT_EQ(both(kB, kA).text(), "(&(a=1)(b=2))");
    EXPECT_EQ(AgentFilter::combine(Operator::Or, {kC, kA, kC, kB, kA}).text(), "(|(a=1)(b=2)(c=3))");
    EXPECT_EQ(both(kA, kA).text(), "(a=1)");
    EXPECT_EQ(both(either(both(kB, kC), both(kC, kB)), kA).text(), "(&(a=1)(b=2)(c=3))");
}

TEST(AnAgentsFilter, HasNoListOfItsOwnSortInside) {
    EXPECT_EQ(both(kC, both(kA, kB)).text(), "(&(a=1)(b=2)(c=3))");
    EXPECT_EQ(either(either(kC, kA), kB).text(), "(|(a=1)(b=2)(c=3))");
    EXPECT_EQ(both(either(kA, kA), either(kB, kB)).text(), "(&(a=1)(b=2))");
    EXPECT_EQ(both(kA, either(kB, kC)).text(), "(&(a=1)(|(b=2)(c=3)))");
    EXPECT_EQ(both(either(both(kB, kC), AgentFilter::nothing()), kA).text(), "(&(a=1)(b=2)(c=3))");
    EXPECT_EQ(either(both(kB, kC), kA).text(), "(|(&(b=2)(c=3))(a=1))");
}

TEST(AnAgentsFilter, TakesAConditionInFront) {
    EXPECT_EQ(AgentFilter::all().textWith("(z=9)"), "(z=9)");
    EXPECT_EQ(kA.textWith("(z=9)"), "(&(z=9)(a=1))");
    EXPECT_EQ(both(kB, kA).textWith("(z=9)"), "(&(z=9)(a=1)(b=2))");
    EXPECT_EQ(either(kB, kA).textWith("(z=9)"), "(&(z=9)(|(a=1)(b=2)))");
}

TEST(AnAgentsFilter, EscapesWhatCouldMeanSomethingElse) {
    EXPECT_EQ(AgentFilter::equality("n", std::string("a)(*\\\0b", 7)).text(), "(n=a\\29\\28\\2A\\5C\\00b)");
    EXPECT_EQ(AgentFilter::ofBytes("n", "a\xFF").text(), "(n=\\61\\FF)");
    EXPECT_EQ(AgentFilter::presence("n").text(), "(n=*)");
}

std::string pattern(std::string_view value, TextPattern::Case inCase = TextPattern::Case::Kept) {
    TextPattern result(inCase);
    result.append(value);
    return result.of("n").text();
}

TEST(ATextPattern, MayHaveAnythingForBlanksAndForWhatIsNotAscii) {
    EXPECT_EQ(pattern("a b"), "(n=a*b)");
    EXPECT_EQ(pattern("a \t  b"), "(n=a*b)");
    EXPECT_EQ(pattern(" a "), "(n=*a*)");
    EXPECT_EQ(pattern("Zo\xC3\xAB"), "(n=Zo*)");
    EXPECT_EQ(pattern("a\xC3\xAB \xC3\xAB"
                      "b"),
              "(n=a*b)");
}

TEST(ATextPattern, OfNothingElseIsPresence) {
    EXPECT_EQ(pattern(""), "(n=*)");
    EXPECT_EQ(pattern("  "), "(n=*)");
    EXPECT_EQ(pattern("\xC3\xAB"), "(n=*)");
}

TEST(ATextPattern, EscapesWhatCouldMeanSomethingElse) {
    EXPECT_EQ(pattern(std::string("*)(\\\0", 5)), "(n=\\2A\\29\\28\\5C\\00)");
    EXPECT_EQ(pattern("a* b"), "(n=a\\2A*b)");
}

TEST(ATextPattern, JoinsItsPiecesWithOneAsterisk) {
    TextPattern result(TextPattern::Case::Kept);
    result.append("a ");
    result.appendAnything();
    result.append(" b");
    result.appendAnything();
    EXPECT_EQ(result.of("n").text(), "(n=a*b*)");
}

TEST(ATextPattern, IsInLowerCaseWhereCaseDoesNotCount) {
    EXPECT_EQ(pattern("Ann", TextPattern::Case::Folded), "(n=ann)");
    EXPECT_EQ(pattern("Ann", TextPattern::Case::Kept), "(n=Ann)");
}

TEST(ATextPattern, TellsWhetherItHasLettersOfEitherCase) {
    const auto tells = [](std::string_view value, TextPattern::Case inCase) {
        TextPattern result(inCase);
        result.append(value);
        return result.hasFoldedLetters();
    };
    EXPECT_TRUE(tells("1A", TextPattern::Case::Folded));
    EXPECT_FALSE(tells("1A", TextPattern::Case::Kept));
    EXPECT_FALSE(tells("10.0.0.1", TextPattern::Case::Folded));
    EXPECT_FALSE(tells("\xC3\xAB", TextPattern::Case::Folded));
}

}  // namespace
// A capital i with its dot folds to an "i" and a mark: the directory may have either.
TEST(ATextPattern, MayHaveAnythingForALetterWithAMark) {
    EXPECT_EQ(pattern("ri\xcc\x87za", TextPattern::Case::Folded), "(n=r*za)");
}

}  // namespace standard
