// SPDX-License-Identifier: Apache-2.0
#include "agent/embedded/kinds.h"

#include <gtest/gtest.h>

#include <string>

#include "agent/embedded/directory_testing.h"

namespace vexagent {
namespace {

// Whether the entry is marked as one that Unix cannot use.
bool isMarked(EmbeddedDirectory& directory, const std::string& dn) {
    Object object;
    EXPECT_TRUE(directory.fetch("", dn + "," + kRoot, {}, object).ok()) << dn;
    return value(object, "_nssEntryInvalid") == "TRUE";
}

TEST(EmbeddedIds, NumbersThatHostsAreNotShownMarkAnEntry) {
    TestDirectory directory(units() + person("Root", "root", 0) + person("Low", "low", 999) +
                            person("High", "high", 1000) + group("wheel", 0, {}) + group("many", 1000, {}));
    EXPECT_TRUE(isMarked(*directory, "CN=Root,OU=People"));
    EXPECT_FALSE(isMarked(*directory, "CN=Low,OU=People"));
    EXPECT_TRUE(isMarked(*directory, "CN=wheel,OU=Groups"));
    EXPECT_FALSE(isMarked(*directory, "CN=many,OU=Groups"));
    EmbeddedDirectory strict({directory.database(), kDomain, {"sAMAccountName"}, testClock, 1000});
    EXPECT_TRUE(isMarked(strict, "CN=Low,OU=People"));
    EXPECT_FALSE(isMarked(strict, "CN=High,OU=People"));
    ASSERT_TRUE(directory.change(std::string("dn: CN=High,OU=People,") + kRoot +
                                 "\nchangetype: modify\nadd: uidNumber\nuidNumber: 0\n"));
    EXPECT_TRUE(isMarked(strict, "CN=High,OU=People"));
}

// The database keeps attributes by their names.
TEST(EmbeddedIds, MarkAnEntryThatBeginsWithThem) {
    const auto unit = [](const std::string& name, int number) {
        return "dn: OU=" + name + "," + kRoot + "\nobjectClass: group\ngidNumber: " + std::to_string(number) +
               "\n\n";
    };
    const TestDirectory directory(unit("wheel", 0) + unit("many", 1000));
    EXPECT_TRUE(isMarked(*directory, "OU=wheel"));
    EXPECT_FALSE(isMarked(*directory, "OU=many"));
}

TEST(EmbeddedComputers, AreOfUseByAnAddressOfEitherKind) {
    const auto computer = [](const std::string& name, const std::string& address) {
        return "dn: CN=" + name + "," + kRoot + "\nobjectClass: user\nobjectClass: computer\n" + address +
               "\n";
    };
    const TestDirectory directory(computer("none", "") + computer("ip", "ipHostNumber: 192.0.2.1\n") +
                                  computer("mac", "macAddress: 00:00:5e:00:53:01\n"));
    EXPECT_TRUE(isMarked(*directory, "CN=none"));
    EXPECT_FALSE(isMarked(*directory, "CN=ip"));
    EXPECT_FALSE(isMarked(*directory, "CN=mac"));
}

}  // namespace
}  // namespace vexagent
