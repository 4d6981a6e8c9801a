// SPDX-License-Identifier: Apache-2.0
#include "standard/kinds.h"

#include <gmock/gmock.h>

#include "standard/kinds_testing.h"

namespace standard {
namespace {

using testing::ElementsAre;
using testing::Pointee;

TEST(AKind, FindsTheAttributesOfATypeInAnyCase) {
    const Kind user = peopleAndGroups().front();
    EXPECT_THAT(user.find("UIDNUMBER"), Pointee(ElementsAre(3)));
    EXPECT_THAT(user.find("Name"), Pointee(ElementsAre(1, 2)));
}

TEST(AKind, HasNoAttributesOfAnotherTypeAndNoneWithOptions) {
    const Kind user = peopleAndGroups().front();
    EXPECT_EQ(user.find("gidNumber"), nullptr);
    EXPECT_EQ(user.find("cn;lang-en"), nullptr);
    EXPECT_EQ(user.find(""), nullptr);
}

TEST(AKind, KnowsItsClassesInAnyCase) {
    const Kind user = peopleAndGroups().front();
    EXPECT_TRUE(user.mayHaveClass("POSIXACCOUNT"));
    EXPECT_TRUE(user.mayHaveClass("top"));
    EXPECT_FALSE(user.mayHaveClass("posixGroup"));
    EXPECT_FALSE(user.mayHaveClass("posix"));
    EXPECT_TRUE(peopleAndGroups().back().mayHaveClass("groupOfMembers"));
}

}  // namespace
}  // namespace standard
