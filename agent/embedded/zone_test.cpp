// SPDX-License-Identifier: Apache-2.0
#include "agent/embedded/zone.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "agent/embedded/directory_testing.h"

namespace vexagent {
namespace {

using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

// The common names of the groups in which the zone's view shows somebody.
std::vector<std::string> groupsOf(const TestDirectory& directory, const std::string& name) {
    Query query;
    query.filter = "(memberUid=" + name + ")";
    query.view.zone = true;
    Batch batch;
    std::unique_ptr<Cursor> rest;
    EXPECT_TRUE(directory->search(query, batch, rest).ok());
    std::vector<std::string> names;
    for (const Object& object : batch.objects) names.push_back(value(object, "sAMAccountName"));
    return names;
}

std::vector<std::string> membersOf(const TestDirectory& directory, const std::string& group) {
    View view;
    view.zone = true;
    Object object;
    EXPECT_TRUE(directory->fetch("", "CN=" + group + ",OU=Groups," + kRoot, view, object).ok());
    return values(object, "memberUid");
}

TEST(EmbeddedGroups, AreAllThatSomebodyIsDirectlyIn) {
    std::string ldif = units() + person("Ann", "ann", 1001);
    for (const char* name : {"a", "c"})
        ldif += std::string("dn: CN=") + name + ",OU=People,DC=example,DC=com\nobjectClass: top\nmember: " +
                "CN=Ann,OU=People,DC=example,DC=com\n\n";
    for (const char* name : {"b", "d", "e"}) ldif += group(name, 2001, {"CN=Ann,OU=People"});
    const TestDirectory directory(ldif);
    EXPECT_THAT(groupsOf(directory, "ann"), UnorderedElementsAre("b", "d", "e"));
}

TEST(EmbeddedGroups, AreThoseOfAllWhoHaveTheName) {
    const TestDirectory directory(
        units() + person("Ann", "ann", 1001, "uid: both\n") + person("Bea", "bea", 1002, "uid: both\n") +
        person("Both", "both", 1003) + group("a", 2001, {"CN=Ann,OU=People"}) +
        group("b", 2002, {"CN=Bea,OU=People"}) + group("c", 2003, {"CN=Both,OU=People"}));
    EXPECT_THAT(groupsOf(directory, "both"), UnorderedElementsAre("a", "b", "c"));
}

TEST(EmbeddedGroups, HaveAllWhosePrimaryGroupTheyAre) {
    const TestDirectory directory(
        units() + person("Ann", "ann", 1001, "primaryGroupID: 2001\n") +
        person("Ben", "ben", 1002, "primaryGroupID: 2001\n") +
        person("Cleo", "cleo", 1003, "primaryGroupID: 2002\n") + group("staff", 2001, {}) +
        std::string("dn: CN=Dan,OU=People,") + kRoot +
        "\nobjectClass: user\nsAMAccountName: dan\nuidNumber: 1004\nprimaryGroupID: 2001\n\n");
    EXPECT_THAT(membersOf(directory, "staff"), ElementsAre("ann", "ben"));
    EXPECT_THAT(groupsOf(directory, "ann"), ElementsAre("staff"));
    EXPECT_THAT(groupsOf(directory, "dan"), ElementsAre()) << "who has no SID has no domain";
}

}  // namespace
}  // namespace vexagent
