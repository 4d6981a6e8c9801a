// SPDX-License-Identifier: Apache-2.0
#include "agent/directory/member_groups.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ldap.h>

namespace vexagent {
namespace {

using ::testing::ElementsAre;

TEST(MemberGroups, EachNameIsResolvedOnce) {
    std::vector<std::string> asked;
    MemberGroups groups(
        [&](const std::string& name, std::vector<std::string>& guids) {
            asked.push_back(name);
            guids = {name + "'s group"};
            return Result();
        },
        10);
    for (int i = 0; i < 3; ++i) {
        EXPECT_THAT(groups.of("ann"), ElementsAre("ann's group"));
        EXPECT_THAT(groups.of("ANN"), ElementsAre("ANN's group"));
    }
    EXPECT_THAT(asked, ElementsAre("ann", "ANN"));
    EXPECT_TRUE(groups.result().ok());
}

TEST(MemberGroups, NamesAreLimited) {
    int asked = 0;
    MemberGroups groups([&](const std::string&, std::vector<std::string>&) { return ++asked, Result(); }, 2);
    for (const char* name : {"a", "b", "a", "c", "d"}) groups.of(name);
    EXPECT_EQ(asked, 2);
    EXPECT_EQ(groups.result().errCode, LDAP_ADMINLIMIT_EXCEEDED);
}

TEST(MemberGroups, AFailureEndsTheWork) {
    int asked = 0;
    MemberGroups groups(
        [&](const std::string&, std::vector<std::string>& guids) {
            ++asked;
            guids = {"half"};
            return Result::ldap(VEX_UNAVAILABLE, LDAP_UNAVAILABLE, "away");
        },
        10);
    EXPECT_TRUE(groups.of("a").empty());
    EXPECT_TRUE(groups.of("a").empty());
    EXPECT_TRUE(groups.of("b").empty());
    EXPECT_EQ(asked, 1);
    EXPECT_EQ(groups.result().errText, "away");
}

TEST(MemberGroups, AWholeFilterHasALimitToo) {
    MemberGroups groups(
        [](const std::string&, std::vector<std::string>& guids) {
            guids.assign(MemberGroups::kMostGuids / 2, "group");
            return Result();
        },
        10);
    EXPECT_FALSE(groups.of("a").empty());
    EXPECT_FALSE(groups.of("a").empty());
    EXPECT_TRUE(groups.of("a").empty());
    EXPECT_EQ(groups.result().errCode, LDAP_ADMINLIMIT_EXCEEDED);
}

}  // namespace
}  // namespace vexagent
