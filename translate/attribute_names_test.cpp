// SPDX-License-Identifier: Apache-2.0
#include "translate/attribute_names.h"

#include <gmock/gmock.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(AttributeNames, ListsAreEqualByTheirNamesWhetherTheyShareThemOrNot) {
    const AttributeNames one{"uid", "mail"};
    const AttributeNames copy = one;
    EXPECT_EQ(&copy.list(), &one.list()) << "one list";
    EXPECT_EQ(copy, one);
    EXPECT_EQ(AttributeNames(std::vector<std::string>{"uid", "mail"}), one);
    for (const AttributeNames& other : {AttributeNames{"uid"}, AttributeNames{"mail", "uid"},
                                        AttributeNames{"uid", "MAIL"}, AttributeNames{}, AttributeNames()})
        EXPECT_NE(other, one);
}

TEST(AttributeNames, NoNamesAreNoNamesHoweverTheyCameAbout) {
    EXPECT_THAT(AttributeNames(), IsEmpty());
    EXPECT_EQ(AttributeNames(), AttributeNames(std::vector<std::string>()));
    EXPECT_THAT(AttributeNames({"uid"}), ElementsAre("uid"));
}

}  // namespace
