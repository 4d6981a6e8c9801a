// SPDX-License-Identifier: Apache-2.0
#include "agent/directory/member_naming.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vexagent {
namespace {

using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::IsEmpty;

std::string marked(const std::string& name) {
    return kUnnumbered + name;
}

TEST(MemberNaming, ForHostsIsTheLoginNameOfThoseWithANumber) {
    EXPECT_EQ(nameOfMember({"annie", "ann", true}, Naming::Hosts), "annie");
    EXPECT_EQ(nameOfMember({"", "ann", true}, Naming::Hosts), "ann");
    EXPECT_EQ(nameOfMember({"annie", "ann", false}, Naming::Hosts), "");
}

TEST(MemberNaming, ForApplicationsIsTheAccountNameOfAll) {
    EXPECT_EQ(nameOfMember({"annie", "ann", true}, Naming::Applications), "ann");
    EXPECT_EQ(nameOfMember({"annie", "ann", false}, Naming::Applications), marked("ann"));
    EXPECT_EQ(nameOfMember({"annie", "", true}, Naming::Applications), "");
    EXPECT_EQ(nameOfMember({"annie", "", false}, Naming::Applications), "");
}

TEST(MemberNaming, TheMarkIsNoPartOfAName) {
    EXPECT_EQ(withoutMark(marked("ann")), "ann");
    EXPECT_EQ(withoutMark("ann"), "ann");
    EXPECT_EQ(withoutMark(""), "");
}

Object computed(const std::vector<std::string>& names) {
    Object object;
    addMembers(names, object);
    return object;
}

TEST(ComputedMembers, ThoseWithoutANumberStandApart) {
    EXPECT_THAT(computed({}), IsEmpty());
    const Object numbered = computed({"ann", "ben"});
    ASSERT_EQ(numbered.size(), 1u);
    EXPECT_EQ(numbered[0].name, "memberUid");
    EXPECT_THAT(numbered[0].values, ElementsAre("ann", "ben"));
    const Object both = computed({marked("guest"), marked("visitor"), "", "ann"});
    ASSERT_EQ(both.size(), 2u);
    EXPECT_THAT(both[0].values, ElementsAre("", "ann")) << "as it is stored";
    EXPECT_EQ(both[1].name, kUnnumberedMember);
    EXPECT_THAT(both[1].values, ElementsAre("guest", "visitor"));
    EXPECT_THAT(computed({marked("guest")}), ElementsAre(Field(&Attribute::name, kUnnumberedMember)));
}

}  // namespace
}  // namespace vexagent
