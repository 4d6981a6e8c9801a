// SPDX-License-Identifier: Apache-2.0
#include "standard/kinds_of_map.h"

#include <gmock/gmock.h>

#include <algorithm>

#include "standard/schema_testing.h"

namespace standard {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char kPeople[] =
    "posixAccount = User\n"
    "posixAccount.uid = sAMAccountName\n"
    "posixAccount.homeDirectory = unixHomeDirectory\n"
    "inetOrgPerson = user\n";

class KindsOfAMap : public testing::Test {
  protected:
    KindsOfMap make(const std::string& text) const {
        vorn::Properties map;
        map.parse(text, "a.map");
        return kindsOf(map, m_schema);
    }

    Kind kind(const std::string& text, const std::string& objectClass = "User") const {
        for (const Kind& one : make(text).kinds)
            if (one.objectClass == objectClass) return one;
        ADD_FAILURE() << "no kind " << objectClass;
        return {};
    }

    std::string complaint(const std::string& text) const try {
        make(text);
        return "";
    } catch (const MapException& error) {
        return error.what();
    }

    static std::vector<std::string> classesOf(const Kind& kind) {
        std::vector<std::string> names;
        for (const ShownClass& one : kind.classes) names.push_back(one.name);
        return names;
    }

    static std::vector<std::string> sourcesOf(const Kind& kind, const std::string& attribute) {
        for (const ShownAttribute& one : kind.attributes)
            if (one.name == attribute) return one.sources;
        return {"is not shown"};
    }

    SmallSchema m_schema;
};

TEST_F(KindsOfAMap, TheClassesOfOneCategoryAreOneKind) {
    const Kind people = kind(kPeople);
    EXPECT_EQ(people.sort, Sort::Person);
    EXPECT_EQ(people.structural, "inetOrgPerson");
    EXPECT_THAT(classesOf(people), ElementsAre("top", "person", "inetOrgPerson", "posixAccount", "adObject"));
    EXPECT_TRUE(people.classes.back().holdsTheRest);
}

TEST_F(KindsOfAMap, AnAttributeComesFromTheLinesOfAllClassesOrElseFromItself) {
    const Kind people = kind(std::string(kPeople) +
                             "inetOrgPerson.uid = sAMAccountName\ninetOrgPerson.mail = proxy\n"
                             "posixAccount.commonName = displayName\ninetOrgPerson.cn = cn\n"
                             "inetOrgPerson.title =\n");
    EXPECT_THAT(sourcesOf(people, "uid"), ElementsAre("sAMAccountName"));
    EXPECT_THAT(sourcesOf(people, "homeDirectory"), ElementsAre("unixHomeDirectory"));
    EXPECT_THAT(sourcesOf(people, "mail"), ElementsAre("proxy"));
    EXPECT_THAT(sourcesOf(people, "cn"), ElementsAre("displayName", "cn"));
    EXPECT_THAT(sourcesOf(people, "sn"), ElementsAre("sn"));
    EXPECT_THAT(sourcesOf(people, "title"), ElementsAre("is not shown")) << "its line is empty";
    EXPECT_THAT(sourcesOf(people, "entryUUID"), ElementsAre("objectGUID"));
    EXPECT_THAT(sourcesOf(people, "createTimestamp"), ElementsAre("whenCreated"));
    EXPECT_THAT(sourcesOf(people, "modifyTimestamp"), ElementsAre("whenChanged"));
}

TEST_F(KindsOfAMap, PasswordsAreNeverShownAndMembersAreComputed) {
    EXPECT_THAT(sourcesOf(kind(kPeople), "userPassword"), ElementsAre("is not shown"));
    EXPECT_THAT(sourcesOf(kind("posixGroup = Group\n", "Group"), "member"), IsEmpty());
}

TEST_F(KindsOfAMap, AnOperationalAttributeWithALineIsShownWhateverTheClassesAllow) {
    m_schema.addAttribute("authzTo", Match::Other, true);
    EXPECT_THAT(sourcesOf(kind(kPeople), "authzTo"), ElementsAre("is not shown"));
    const std::string line = "inetOrgPerson.authzTo = info\ninetOrgPerson.entryUUID = other\n";
    EXPECT_THAT(sourcesOf(kind(kPeople + line), "authzTo"), ElementsAre("info"));
    EXPECT_THAT(sourcesOf(kind(kPeople + line), "entryUUID"), ElementsAre("objectGUID")) << "its own";
}

TEST_F(KindsOfAMap, ATypesAttributesAreItselfAndItsSubtypes) {
    const Kind people = kind(kPeople);
    const auto* names = people.find("name");
    ASSERT_NE(names, nullptr);
    std::vector<std::string> found;
    for (const std::size_t at : *names) found.push_back(people.attributes[at].name);
    EXPECT_THAT(found, testing::UnorderedElementsAre("cn", "sn"));
}

TEST_F(KindsOfAMap, OnlyANameThatADomainKeepsUniqueIsShownInDns) {
    EXPECT_EQ(kind(kPeople).naming, "");
    EXPECT_EQ(kind(std::string(kPeople) + "posixAccount.CN = samaccountname\n").naming, "sAMAccountName");
    EXPECT_EQ(kind(std::string(kPeople) + "posixAccount.cn = displayName\n").naming, "");
}

TEST_F(KindsOfAMap, AKindWithoutAStructuralClassHasTheUsualOne) {
    EXPECT_EQ(kind("posixAccount = User\n").structural, "inetOrgPerson");
    EXPECT_EQ(kind("adObject = Computer\n", "Computer").structural, "device");
    const Kind groups = kind("posixGroup = Group\n", "Group");
    EXPECT_EQ(groups.structural, "groupOfNames");
    ASSERT_FALSE(groups.fallback.empty());
    EXPECT_EQ(groups.fallback.back().name, "groupOfMembers");
    EXPECT_THAT(complaint("adObject = thing\n"), "a.map:1: thing has no structural class");
}

TEST_F(KindsOfAMap, ASuperiorIsNoSecondStructuralClass) {
    EXPECT_EQ(kind("person = User\ninetOrgPerson = User\n").structural, "inetOrgPerson");
    EXPECT_EQ(kind("inetOrgPerson = User\nperson = User\n").structural, "inetOrgPerson");
}

TEST_F(KindsOfAMap, WhatDoesNotFitTheSchemaIsNamedWithItsPlace) {
    EXPECT_EQ(complaint("posixAccount = User\nnoClass = User\n"),
              "a.map:2: the schema has no object class noClass");
    EXPECT_EQ(complaint("posixAccount = User\nposixAccount.noName = x\n"),
              "a.map:2: the schema has no attribute noName");
    EXPECT_EQ(complaint("inetOrgPerson = User\ndevice = User\n"),
              "a.map:2: User has two structural classes, inetOrgPerson and device");
    EXPECT_THAT(complaint("posixAccount = User\nposixAccount.cn = a\nposixAccount.commonName = b\n"),
                HasSubstr("posixAccount has another line for cn"));
}

// RFC 2307's own schema says so of UNIX groups, and it is on every host.
TEST_F(KindsOfAMap, GroupsOfTwoStructuralClassesAreShownWithAWarning) {
    m_schema.addClass({"posixGroup", true, {"top"}, {"cn", "gidNumber"}, {"memberUid"}});
    const KindsOfMap made = make("groupOfNames = Group\nposixGroup = Group\n");
    EXPECT_THAT(made.warnings, ElementsAre(HasSubstr("groupOfNames and posixGroup are both structural")));
    EXPECT_THAT(classesOf(made.kinds.front()), ElementsAre("top", "groupOfNames", "posixGroup", "adObject"));
}

TEST_F(KindsOfAMap, PlacesAreShownWithoutALineForThem) {
    const std::vector<Kind> kinds = make(kPeople).kinds;
    std::vector<std::string> names;
    for (const Kind& one : kinds) names.push_back(one.objectClass);
    EXPECT_THAT(names, ElementsAre("User", "organizationalUnit", "container", "builtinDomain", "lostAndFound",
                                   "domainDNS"));
    EXPECT_EQ(kind(std::string(kPeople) + "device = container\n", "container").structural, "device");
}

TEST_F(KindsOfAMap, WhoHasNoNumbersIsShownWhereTheMapSaysSo) {
    EXPECT_FALSE(kind(kPeople).showsIncomplete);
    const std::string text = std::string(kPeople) + "entries.without.numbers = TRUE\ndevice = Computer\n";
    EXPECT_TRUE(kind(text).showsIncomplete);
    EXPECT_THAT(kind(text).incompleteWithout, Contains("posixAccount"));
    EXPECT_FALSE(kind(text, "Computer").showsIncomplete);
}

TEST_F(KindsOfAMap, TheAgeingOfPasswordsIsTheAccountsWhereTheMapSaysSo) {
    const std::string text = std::string(kPeople) + "shadowAccount = User\n";
    const auto formOf = [](const Kind& of, const char* name) {
        return of.attributes[of.find(name)->front()].form;
    };
    EXPECT_FALSE(kind(text).shadowOfAccount);
    EXPECT_EQ(formOf(kind(text), "shadowMax"), Form::Same);
    const Kind made = kind(text + "shadow.of.account = true\n");
    EXPECT_TRUE(made.shadowOfAccount);
    EXPECT_EQ(formOf(made, "shadowMax"), Form::Computed);
    EXPECT_EQ(formOf(made, "shadowMin"), Form::Same) << "which nobody can tell";
    EXPECT_FALSE(kind(text + "shadow.of.account = true\nposixGroup = Group\n", "Group").shadowOfAccount);
}

TEST_F(KindsOfAMap, TheClassesComeInTheOrderOfTheFile) {
    EXPECT_THAT(classesOf(kind("posixGroup = User\nposixAccount = User\n")),
                ElementsAre("top", "person", "inetOrgPerson", "posixGroup", "posixAccount", "adObject"));
}

TEST_F(KindsOfAMap, PeopleAreNoComputers) {
    EXPECT_EQ(kind(kPeople).condition, "(&(objectCategory=Person)(objectClass=user))");
    EXPECT_EQ(kind("device = thing\n", "thing").condition, "(objectClass=thing)");
}

}  // namespace
}  // namespace standard
