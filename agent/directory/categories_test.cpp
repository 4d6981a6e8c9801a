// SPDX-License-Identifier: Apache-2.0
#include "agent/directory/categories.h"

#include <gtest/gtest.h>

namespace vexagent {
namespace {

TEST(Categories, OfAClassAreActiveDirectorysOwn) {
    EXPECT_EQ(categoryOfClass("user"), "Person");
    EXPECT_EQ(categoryOfClass("INETORGPERSON"), "Person");
    EXPECT_EQ(categoryOfClass("posixGroup"), "Group");
    EXPECT_EQ(categoryOfClass("nisNetgroup"), "NisNetgroup");
    EXPECT_EQ(categoryOfClass("organizationalUnit"), "Organizational-Unit");
    EXPECT_EQ(categoryOfClass("domainDNS"), "Domain-DNS");
}

TEST(Categories, ANameThatIsNoClassIsTheCategorysOwn) {
    EXPECT_EQ(categoryOfClass("Person"), "Person");
    EXPECT_EQ(categoryOfClass("Print-Queue"), "Print-Queue");
}

TEST(Categories, HaveTheirDnBelowTheForestsRoot) {
    EXPECT_EQ(categoryDn("Person", "DC=example,DC=com"),
              "CN=Person,CN=Schema,CN=Configuration,DC=example,DC=com");
}

TEST(Categories, AreShownByTheirShortName) {
    EXPECT_EQ(shortCategory("CN=Person,CN=Schema,CN=Configuration,DC=x", "group"), "Person");
    EXPECT_EQ(shortCategory("CN=NisNetgroup,CN=Schema,DC=x", ""), "nisNetgroup");
    EXPECT_EQ(shortCategory("CN=person,CN=Schema,DC=x", ""), "Person");
    EXPECT_EQ(shortCategory("CN=Print-Queue,CN=Schema,DC=x", ""), "Print-Queue");
    EXPECT_EQ(shortCategory("Group", ""), "Group") << "it need not be a DN";
    EXPECT_EQ(shortCategory("CN=Group", ""), "Group") << "nor one with a parent";
}

TEST(Categories, WithoutOneTheMostSpecificClassTells) {
    EXPECT_EQ(shortCategory("", "computer"), "Computer");
    EXPECT_EQ(shortCategory("", "nisNetgroup"), "nisNetgroup");
    EXPECT_EQ(shortCategory("CN=,DC=x", "user"), "Person");
}

TEST(Categories, UnixClassesAreThoseOfPeopleGroupsHostsAndRfc2307) {
    for (const char* name :
         {"user", "GROUP", "computer", "nisNetgroup", "ipHost", "shadowAccount", "automount"})
        EXPECT_TRUE(isUnixClass(name)) << name;
    for (const char* name : {"person", "container", "organizationalUnit", "contact", ""})
        EXPECT_FALSE(isUnixClass(name)) << name;
}

// What isInvalidEntry makes of an object with all of a person's marks, without one.
bool isInvalidWithout(const char* category, bool UnixFacts::*missing) {
    UnixFacts facts{.uidNumber = true, .gidNumber = true, .home = true};
    facts.*missing = false;
    return isInvalidEntry(category, facts);
}

TEST(Categories, APersonNeedsItsNumbersAndAHome) {
    EXPECT_FALSE(isInvalidWithout("Person", &UnixFacts::address));
    EXPECT_TRUE(isInvalidWithout("Person", &UnixFacts::uidNumber));
    EXPECT_TRUE(isInvalidWithout("Person", &UnixFacts::gidNumber));
    EXPECT_TRUE(isInvalidWithout("Person", &UnixFacts::home));
}

TEST(Categories, AGroupNeedsItsNumberOnly) {
    EXPECT_FALSE(isInvalidEntry("Group", {.gidNumber = true}));
    EXPECT_TRUE(isInvalidEntry("Group", {.uidNumber = true, .home = true}));
}

TEST(Categories, AComputerNeedsWhatAPersonNeedsOrAnAddress) {
    EXPECT_TRUE(isInvalidEntry("Computer", {}));
    EXPECT_FALSE(isInvalidEntry("Computer", {.address = true}));
    EXPECT_FALSE(isInvalidWithout("Computer", &UnixFacts::address));
    EXPECT_TRUE(isInvalidWithout("Computer", &UnixFacts::home));
}

TEST(Categories, ARefusedNumberMakesNoUnixEntryOfAnyOfThem) {
    const UnixFacts refused{
        .uidNumber = true, .gidNumber = true, .home = true, .address = true, .refused = true};
    EXPECT_TRUE(isInvalidEntry("Person", refused));
    EXPECT_TRUE(isInvalidEntry("Group", refused));
    EXPECT_TRUE(isInvalidEntry("Computer", refused));
}

TEST(Categories, NothingElseIsEverMarked) {
    for (const char* category : {"nisNetgroup", "Organizational-Unit", "Container", ""}) {
        EXPECT_FALSE(isInvalidEntry(category, {})) << category;
        EXPECT_FALSE(isInvalidEntry(category, {.refused = true})) << category;
    }
}

}  // namespace
}  // namespace vexagent
