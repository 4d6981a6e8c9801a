// SPDX-License-Identifier: Apache-2.0
#include "standard/shown_entry.h"

#include <gmock/gmock.h>

#include "standard/kinds_of_map.h"
#include "standard/schema_testing.h"

namespace standard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Line = std::pair<std::string, std::string>;

class ShownEntryTest : public testing::Test {
  protected:
    explicit ShownEntryTest(const std::string& more = "") {
        vorn::Properties map;
        map.parse(
            "posixAccount = User\nposixAccount.uid = sAMAccountName\nposixAccount.homeDirectory = "
            "unixHomeDirectory\n"
            "inetOrgPerson = User\nposixGroup = Group\nposixGroup.cn = sAMAccountName\ngroupOfNames = "
            "Group\n" +
                more,
            "a.map");
        m_kinds = kindsOf(map, SmallSchema()).kinds;
    }

    static AgentObject object(const std::vector<Line>& lines) {
        AgentObject made;
        for (const auto& [name, value] : lines) made.add(name, value);
        return made;
    }

    static std::vector<Line> ann() {
        return {{"_dn", "CN=Ann Lee,OU=P,DC=x"},
                {"objectClass", "top"},
                {"objectClass", "user"},
                {"cn", "Ann Lee"},
                {"sn", "Lee"},
                {"sAMAccountName", "ann"},
                {"uidNumber", "7"},
                {"gidNumber", "8"},
                {"unixHomeDirectory", "/h"},
                {"whenCreated", "20260102030405.0Z"},
                {"userPassword", "x"}};
    }

    static std::vector<Line> group() {
        return {{"_dn", "CN=The Staff,OU=G,DC=x"}, {"objectClass", "top"},
                {"objectClass", "group"},          {"cn", "The Staff"},
                {"sAMAccountName", "staff"},       {"gidNumber", "9"}};
    }

    std::optional<ShownEntry> shown(const std::vector<Line>& lines) const {
        const AgentObject made = object(lines);
        const Kind* kind = kindOf(m_kinds, made);
        return kind == nullptr ? std::nullopt : show(*kind, made);
    }

    static std::vector<std::string> valuesOf(const std::optional<ShownEntry>& entry,
                                             const std::string& name) {
        if (!entry) return {"no entry"};
        for (const ShownValues& one : entry->attributes)
            if (one.attribute->name == name) return one.values;
        return {};
    }

    Kinds m_kinds;
};

class WithPeopleWithoutNumbers : public ShownEntryTest {
  protected:
    WithPeopleWithoutNumbers() : ShownEntryTest("entries.without.numbers = true\n") {}
};

std::vector<Line> operator+(std::vector<Line> lines, const Line& line) {
    lines.push_back(line);
    return lines;
}

std::vector<Line> operator-(std::vector<Line> lines, const std::string& name) {
    std::erase_if(lines, [&](const Line& line) { return line.first == name; });
    return lines;
}

TEST_F(ShownEntryTest, APersonHasTheClassesAndAttributesOfTheMap) {
    const auto entry = shown(ann());
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->dn, "CN=Ann Lee,OU=P,DC=x");
    EXPECT_EQ(entry->structural, "inetOrgPerson");
    EXPECT_THAT(entry->classes, ElementsAre("top", "person", "inetOrgPerson", "posixAccount", "adObject"));
    EXPECT_THAT(valuesOf(entry, "uid"), ElementsAre("ann"));
    EXPECT_THAT(valuesOf(entry, "homeDirectory"), ElementsAre("/h"));
    EXPECT_THAT(valuesOf(entry, "createTimestamp"), ElementsAre("20260102030405Z"));
    EXPECT_THAT(valuesOf(entry, "userPassword"), IsEmpty());
}

TEST_F(ShownEntryTest, TheUuidIsTheGuidInNetworkOrder) {
    std::string guid;
    for (char c = 1; c <= 16; ++c) guid += c;
    EXPECT_THAT(valuesOf(shown(ann() + Line{"objectGUID", guid}), "entryUUID"),
                ElementsAre("04030201-0605-0807-090a-0b0c0d0e0f10"));
    EXPECT_THAT(valuesOf(shown(ann() + Line{"objectGUID", "short"}), "entryUUID"), ElementsAre(""))
        << "which slapd refuses";
}

TEST_F(ShownEntryTest, WhoHasNoSurnameHasTheNameForOne) {
    EXPECT_THAT(valuesOf(shown(ann() - "sn"), "sn"), ElementsAre("Ann Lee"));
    EXPECT_THAT(valuesOf(shown(ann()), "sn"), ElementsAre("Lee"));
}

TEST_F(ShownEntryTest, AnEntryHoldsTheValuesOfItsName) {
    EXPECT_THAT(valuesOf(shown(ann() - "cn"), "cn"), ElementsAre("Ann Lee"));
    EXPECT_THAT(valuesOf(shown((ann() - "cn") + Line{"cn", "Annie"}), "cn"), ElementsAre("Annie", "Ann Lee"));
    EXPECT_THAT(valuesOf(shown((ann() - "cn") + Line{"cn", "ANN LEE"}), "cn"), ElementsAre("ANN LEE"));
}

TEST_F(ShownEntryTest, APersonThatIsNoUnixEntryIsNotShown) {
    EXPECT_FALSE(shown(ann() + Line{"_nssEntryInvalid", "TRUE"}));
}

TEST_F(WithPeopleWithoutNumbers, APersonWithoutThemIsAPersonAndNoAccount) {
    const auto entry = shown(ann() + Line{"_nssEntryInvalid", "TRUE"});
    ASSERT_TRUE(entry);
    EXPECT_THAT(entry->classes, ElementsAre("top", "person", "inetOrgPerson", "adObject"));
    EXPECT_THAT(valuesOf(entry, "uidNumber"), IsEmpty()) << "a refused number is not shown";
    EXPECT_THAT(valuesOf(entry, "homeDirectory"), IsEmpty());
    EXPECT_THAT(valuesOf(entry, "uid"), ElementsAre("ann"));
}

TEST_F(ShownEntryTest, AClassWhoseAttributesAreMissingIsNotShown) {
    const auto entry = shown(ann() - "uidNumber");
    ASSERT_TRUE(entry);
    EXPECT_THAT(entry->classes, ElementsAre("top", "person", "inetOrgPerson", "adObject"));
    EXPECT_THAT(valuesOf(entry, "gidNumber"), IsEmpty()) << "no class allows it";
}

TEST_F(ShownEntryTest, WhatNoOtherClassAllowsMakesTheClassForTheRest) {
    EXPECT_THAT(shown(group())->classes, ElementsAre("top", "groupOfMembers", "posixGroup", "adObject"));
    EXPECT_THAT(shown(group() - "sAMAccountName")->classes,
                ElementsAre("top", "groupOfMembers", "posixGroup"));
}

TEST_F(ShownEntryTest, AGroupIsNamedByItsAccountName) {
    EXPECT_EQ(shown(group())->dn, "cn=staff,OU=G,DC=x");
    EXPECT_THAT(valuesOf(shown(group()), "cn"), ElementsAre("staff"));
    EXPECT_EQ(shown((group() - "sAMAccountName") + Line{"sAMAccountName", "a,b=c"})->dn,
              "cn=a\\,b=c,OU=G,DC=x");
    EXPECT_EQ(shown(group() - "sAMAccountName")->dn, "CN=The Staff,OU=G,DC=x");
}

TEST_F(ShownEntryTest, AGroupWithMembersIsOneOfNames) {
    const auto entry = shown(group() + Line{"memberUid", "ann"});
    EXPECT_EQ(entry->structural, "groupOfNames");
    EXPECT_THAT(entry->classes, ElementsAre("top", "groupOfNames", "posixGroup", "adObject"));
    EXPECT_EQ(shown(group())->structural, "groupOfMembers");
}

TEST_F(ShownEntryTest, TheMostSpecificClassThatAKindHasDecides) {
    EXPECT_EQ(kindOf(m_kinds, object({{"objectClass", "top"}, {"objectClass", "USER"}}))->sort, Sort::Person);
    EXPECT_EQ(kindOf(m_kinds, object({{"objectClass", "user"}, {"objectClass", "group"}}))->sort,
              Sort::Group);
    EXPECT_EQ(kindOf(m_kinds, object({{"objectClass", "user"}, {"objectClass", "computer"}})), nullptr);
    EXPECT_EQ(kindOf(m_kinds, object({{"objectClass", "container"}, {"objectClass", "contact"}})), nullptr);
    EXPECT_EQ(kindOf(m_kinds, object({{"objectClass", "printQueue"}})), nullptr);
    EXPECT_EQ(kindOf(m_kinds, object({})), nullptr);
}

TEST_F(ShownEntryTest, AnObjectWithoutANameIsNotShown) {
    EXPECT_FALSE(shown(ann() - "_dn"));
}

TEST_F(ShownEntryTest, APlaceIsShownAsItIs) {
    const auto entry = shown({{"_dn", "OU=P,DC=x"}, {"objectClass", "organizationalUnit"}, {"ou", "P"}});
    ASSERT_TRUE(entry);
    EXPECT_THAT(entry->classes, ElementsAre("top", "organizationalUnit"));
    EXPECT_THAT(valuesOf(entry, "ou"), ElementsAre("P"));
}

}  // namespace
}  // namespace standard
