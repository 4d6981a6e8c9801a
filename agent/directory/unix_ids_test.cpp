// SPDX-License-Identifier: Apache-2.0
// Which numbers of the directory hosts are shown.

#include "agent/directory/unix_ids.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "agent/directory/log_testing.h"

namespace vexagent {
namespace {

TEST(UnixIds, AreDecimalNumbersFromTheLowestOn) {
    const UnixIds ids(1000);
    const std::pair<const char*, bool> cases[] = {
        {"1000", true},        {"1001", true},
        {"4294967294", true},  {"2147483648", true},
        {"0001000", true},     {"999", false},
        {"0", false},          {"1", false},
        {"-1", false},         {"-1000", false},
        {"4294967295", false}, {"4294967296", false},
        {"4294968296", false}, {"", false},
        {" 1000", false},      {"1000 ", false},
        {"+1000", false},      {"0x1000", false},
        {"1e3", false},        {"1000.0", false},
        {"1000\n0", false},    {"99999999999999999999", false},
    };
    for (const auto& [number, allowed] : cases) EXPECT_EQ(ids.allows(number), allowed) << number;
    EXPECT_FALSE(ids.allows(std::string_view("1000\0", 5)));
}

TEST(UnixIds, BeginAboveRootUnlessTold) {
    EXPECT_FALSE(UnixIds().allows("0"));
    EXPECT_FALSE(UnixIds().allows("00"));
    EXPECT_TRUE(UnixIds().allows("1"));
    EXPECT_TRUE(UnixIds(0).allows("0"));
}

TEST(UnixIds, EachNumberOfAnObjectCounts) {
    const UnixIds ids(1000);
    const std::string_view good[] = {"1000", "2000"};
    const std::string_view bad[] = {"1000", "0"};
    EXPECT_FALSE(ids.refuses("CN=a", "uidNumber", good));
    EXPECT_TRUE(ids.refuses("CN=a", "uidNumber", bad));
    EXPECT_TRUE(ids.refuses("CN=a", "uidNumber", bad));
    EXPECT_FALSE(ids.refuses("CN=a", "uidNumber", {}));
}

TEST(UnixIds, AnObjectWithoutAUsableOneIsToldOfOnce) {
    using ::testing::HasSubstr;
    const auto logged = [](const char* dn) {
        const std::string_view bad[] = {"1000", "0\n"};
        const test::CapturedLog log;
        EXPECT_TRUE(UnixIds(1000).refuses(dn, "uidNumber", bad));
        return log.text();
    };
    EXPECT_THAT(logged("CN=told\n"),
                HasSubstr("CN=told\\0a is no UNIX entry: its uidNumber, \"0\\0a\", is no "
                          "number from 1000 (unix.id.min) on\n"));
    EXPECT_EQ(logged("cn=TOLD\n"), "");
    EXPECT_THAT(logged("CN=another"), HasSubstr("CN=another is no UNIX entry"));
}

TEST(UnixIds, StandForPeopleComputersAndGroups) {
    EXPECT_EQ(ownIdAttribute("Person"), "uidNumber");
    EXPECT_EQ(ownIdAttribute("Computer"), "uidNumber");
    EXPECT_EQ(ownIdAttribute("Group"), "gidNumber");
    EXPECT_EQ(ownIdAttribute("nisNetgroup"), "");
}

}  // namespace
}  // namespace vexagent
