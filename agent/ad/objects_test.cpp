// SPDX-License-Identifier: Apache-2.0
// Objects from controllers' entries.

#include "agent/ad/objects.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/directory/identifiers.h"

namespace vexagent {
namespace {

using ::testing::ElementsAre;

const Ids& idsOn() {
    IdOptions options;
    options.fromSid = true;
    static const Ids ids(options, sidBytes("S-1-5-21-1-2-3").value());
    return ids;
}

const Ids& noIds() {
    static const Ids ids(IdOptions{}, "");
    return ids;
}

TEST(AttributesAsked, AreThoseOfTheViewAndThoseItIsMadeFrom) {
    EXPECT_THAT(attributesFor({}, noIds()), ElementsAre("*"));
    EXPECT_THAT(attributesFor({true, {"*", "memberOf"}}, noIds()), ElementsAre("*", "memberOf"));
    EXPECT_THAT(attributesFor({true, {"1.1"}}, noIds()),
                ElementsAre("objectGUID", "objectClass", "objectCategory", "uidNumber", "gidNumber",
                            "unixHomeDirectory", "ipHostNumber", "macAddress"));
    EXPECT_THAT(
        attributesFor({true, {"memberuid", "unicodePwd", "_dn"}}, noIds()),
        ElementsAre("memberuid", "objectGUID", "objectClass", "objectCategory", "uidNumber", "gidNumber",
                    "unixHomeDirectory", "ipHostNumber", "macAddress", "member", "objectSid"));
}

std::string shown(const Object& object) {
    std::string text;
    for (const Attribute& attribute : object) {
        text += attribute.name + "=";
        for (const std::string& value : attribute.values) text += value + ",";
        text += " ";
    }
    return text;
}

Entry person(std::vector<Attribute> more) {
    Entry entry{"CN=Ann,DC=x", {{"objectGUID", {std::string(16, '\1')}}, {"objectClass", {"top", "user"}}}};
    for (Attribute& attribute : more) entry.attributes.push_back(std::move(attribute));
    return entry;
}

TEST(AdObject, OwnAttributesComeFirstAndSecretsNever) {
    const Entry entry = person({{"objectCategory", {"CN=Person,CN=Schema,DC=x"}},
                                {"cn", {"Ann"}},
                                {"unicodePwd", {"x"}},
                                {"empty", {}}});
    EXPECT_EQ(shown(makeObject(entry, {false, {"CN"}}, noIds(), nullptr)),
              "_dn=CN=Ann,DC=x, _GUID=01010101-0101-0101-0101-010101010101, _objectCategory=Person, "
              "_nssEntryInvalid=TRUE, cn=Ann, ");
    EXPECT_EQ(shown(makeObject(entry, {}, noIds(), nullptr)).find("unicodePwd"), std::string::npos);
}

TEST(AdObject, APartOfOneIsNotCalledUseless) {
    const Entry bare = person({{"objectCategory", {"CN=Person,CN=Schema,DC=x"}}});
    const View none = {false, {"1.1"}};
    const auto marked = [&](Part part) {
        return shown(makeObject(bare, none, noIds(), nullptr, part)).find("_nssEntryInvalid") !=
               std::string::npos;
    };
    EXPECT_TRUE(marked(Part::Whole));
    EXPECT_FALSE(marked(Part::OfCatalog));
}

// Made or not: a person is known by uidNumber, a group by gidNumber.
TEST(AdObject, NumbersThatHostsAreNotShownMarkIt) {
    IdOptions options;
    options.least = 1000;
    const Ids ids(options, "");
    const auto marked = [&](Entry entry, std::vector<Attribute> more, Part part = Part::Whole) {
        for (Attribute& attribute : more) entry.attributes.push_back(std::move(attribute));
        return shown(makeObject(entry, {false, {"1.1"}}, ids, nullptr, part)).find("_nssEntryInvalid") !=
               std::string::npos;
    };
    const Entry ann = person({{"objectCategory", {"CN=Person,CN=Schema,DC=x"}},
                              {"gidNumber", {"100"}},
                              {"unixHomeDirectory", {"/home/ann"}}});
    EXPECT_FALSE(marked(ann, {{"uidNumber", {"1000"}}}));
    for (const char* number : {"0", "999", "00", "-1", "0x3e8", "1000 ", "4294967295", "4294967296"})
        EXPECT_TRUE(marked(ann, {{"uidNumber", {number}}})) << number;
    EXPECT_TRUE(marked(ann, {{"uidNumber", {"1000", "0"}}}));
    EXPECT_TRUE(marked(ann, {{"uidNumber", {"0"}}}, Part::OfCatalog));
    EXPECT_FALSE(marked(ann, {{"uidNumber", {"1000"}}}, Part::OfCatalog));
    const Entry group{"CN=g,DC=x", {{"objectClass", {"top", "group"}}}};
    EXPECT_FALSE(marked(group, {{"gidNumber", {"1000"}}}));
    EXPECT_TRUE(marked(group, {{"gidNumber", {"0"}}}));
    const Entry computer{"CN=c,DC=x", {{"objectClass", {"computer"}}, {"ipHostNumber", {"10.0.0.1"}}}};
    EXPECT_FALSE(marked(computer, {}));
    EXPECT_TRUE(marked(computer, {{"uidNumber", {"0"}}}));
}

TEST(AdObject, AMadeNumberBelowTheLowestMarksIt) {
    IdOptions options;
    options.fromSid = true;
    const std::string sid = sidBytes("S-1-5-21-1-2-3-1104").value();
    const Entry bare =
        person({{"objectSid", {sid}}, {"primaryGroupID", {"513"}}, {"sAMAccountName", {"ann"}}});
    const std::uint32_t own = *idsOn().first() + 1104;
    const auto marked = [&](std::uint32_t least) {
        options.least = least;
        const Ids ids(options, sidBytes("S-1-5-21-1-2-3").value());
        return shown(makeObject(bare, {}, ids, nullptr)).find("_nssEntryInvalid") != std::string::npos;
    };
    EXPECT_FALSE(marked(own));
    EXPECT_TRUE(marked(own + 1));
}

TEST(AdObject, ComputedMembersTakeThePlaceOfStoredOnes) {
    Entry group{"CN=g,DC=x",
                {{"objectClass", {"top", "group"}}, {"gidNumber", {"5"}}, {"memberUid", {"old"}}}};
    const std::vector<std::string> members = {"ann", "ben"};
    EXPECT_TRUE(showsMembers(group, {true, {}}));
    EXPECT_FALSE(showsMembers(group, {false, {}}));
    EXPECT_FALSE(showsMembers(group, {true, {"cn"}}));
    EXPECT_FALSE(showsMembers(person({}), {true, {}}));
    EXPECT_EQ(shown(makeObject(group, {true, {"memberUid"}}, noIds(), &members)),
              "_dn=CN=g,DC=x, _GUID=, _objectCategory=Group, memberUid=ann,ben, ");
}

TEST(AdObject, MadeIdsFillOnlyGaps) {
    const std::string sid = sidBytes("S-1-5-21-1-2-3-1104").value();
    const Entry bare =
        person({{"objectSid", {sid}}, {"primaryGroupID", {"513"}}, {"sAMAccountName", {"ann"}}});
    const std::string first = std::to_string(*idsOn().first() + 1104);
    const std::string group = std::to_string(*idsOn().first() + 513);
    const View view{false, {"uidNumber", "gidNumber", "unixHomeDirectory"}};
    const std::string own =
        "_dn=CN=Ann,DC=x, _GUID=01010101-0101-0101-0101-010101010101, _objectCategory=Person, ";
    EXPECT_EQ(shown(makeObject(bare, view, idsOn(), nullptr)),
              own + "uidNumber=" + first + ", gidNumber=" + group + ", unixHomeDirectory=/home/ann, ");
    Entry numbered = bare;
    numbered.attributes.push_back({"uidNumber", {"7"}});
    EXPECT_EQ(shown(makeObject(numbered, view, idsOn(), nullptr)),
              own + "uidNumber=7, gidNumber=" + group + ", unixHomeDirectory=/home/ann, ");
    EXPECT_EQ(memberName(bare, noIds(), Naming::Hosts), "");
    EXPECT_EQ(memberName(bare, idsOn(), Naming::Hosts), "ann");
    numbered.attributes.push_back({"uid", {"annie"}});
    EXPECT_EQ(memberName(numbered, noIds(), Naming::Hosts), "annie");
}

TEST(AttributesAsked, ThoseForMembersOnlyInTheZonesView) {
    const std::vector<std::string> plain = attributesFor({false, {"memberUid"}}, noIds());
    EXPECT_THAT(plain, ::testing::Not(::testing::Contains("member")));
    EXPECT_THAT(attributesFor({true, {"cn"}}, noIds()), ::testing::Not(::testing::Contains("member")));
    EXPECT_THAT(attributesFor({true, {"memberUid"}}, noIds()),
                ::testing::IsSupersetOf({"member", "objectSid"}));
}

TEST(AttributesAsked, ThoseForIdsWhereTheyAreMade) {
    EXPECT_THAT(attributesFor({true, {"cn"}}, idsOn()),
                ElementsAre("cn", "objectGUID", "objectClass", "objectCategory", "uidNumber", "gidNumber",
                            "unixHomeDirectory", "ipHostNumber", "macAddress", "objectSid", "primaryGroupID",
                            "sAMAccountName"));
    EXPECT_THAT(attributesFor({true, {}}, idsOn()), ElementsAre("*"));
}

TEST(AttributesAsked, EachOnceAndNoneThatMeansNothing) {
    EXPECT_THAT(
        attributesFor({false, {"CN", "cn", "", "_GUID", "1.1", "OBJECTGUID", "userPassword", "*"}}, noIds()),
        ElementsAre("*", "CN", "OBJECTGUID"));
}

TEST(AdObject, TheMostSpecificClassCountsWhereNoCategoryIsGiven) {
    EXPECT_EQ(categoryOf({"CN=x", {{"objectClass", {"user", "computer"}}}}), "Computer");
    EXPECT_EQ(categoryOf({"CN=x", {{"objectCategory", {"CN=Group,CN=x"}}, {"objectClass", {"user"}}}}),
              "Group");
    EXPECT_EQ(categoryOf({"CN=x", {}}), "");
    EXPECT_EQ(categoryOf({"CN=x", {{"objectClass", {}}}}), "");
}

TEST(AdObject, OfAUnixKindByAnyOfItsClasses) {
    EXPECT_TRUE(isUnixKind({"CN=x", {{"objectClass", {"top", "POSIXGROUP", "other"}}}}));
    EXPECT_FALSE(isUnixKind({"CN=x", {{"objectClass", {"top", "container"}}}}));
    EXPECT_FALSE(isUnixKind({"CN=x", {}}));
}

TEST(AdObject, MemberIsWhoeverIsAPersonWithANumber) {
    const std::vector<Attribute> numbered = {{"uidNumber", {"7"}}, {"sAMAccountName", {"ann"}}};
    EXPECT_EQ(memberName(person(numbered), noIds(), Naming::Hosts), "ann");
    EXPECT_EQ(memberName(person({{"sAMAccountName", {"ann"}}, {"uid", {"annie"}}}), noIds(), Naming::Hosts),
              "");
    Entry computer = person(numbered);
    computer.attributes.push_back({"objectCategory", {"CN=Computer,CN=x"}});
    EXPECT_EQ(memberName(computer, noIds(), Naming::Hosts), "");
    EXPECT_EQ(memberName(person({{"objectSid", {sidBytes("S-1-5-21-9-9-9-1104").value()}},
                                 {"sAMAccountName", {"ann"}}}),
                         idsOn(), Naming::Hosts),
              "");
}

std::string numbersOf(const Entry& entry) {
    const Object object =
        makeObject(entry, {false, {"uidNumber", "gidNumber", "unixHomeDirectory"}}, idsOn(), nullptr);
    std::string text = shown(object);
    return text.substr(text.find("_objectCategory"));
}

TEST(AdObject, MadeIdsAreThoseOfPeopleAndGroups) {
    const std::string sid = sidBytes("S-1-5-21-1-2-3-1104").value();
    const std::string own = std::to_string(*idsOn().first() + 1104);
    const std::vector<Attribute> account = {{"objectSid", {sid}}, {"primaryGroupID", {"513"}}};
    const auto with = [&](const char* category) {
        Entry entry = person(account);
        entry.attributes.push_back({"objectCategory", {std::string("CN=") + category + ",CN=x"}});
        return numbersOf(entry);
    };
    EXPECT_EQ(with("Group"), "_objectCategory=Group, gidNumber=" + own + ", ");
    EXPECT_EQ(with("Computer"), "_objectCategory=Computer, _nssEntryInvalid=TRUE, ");
    EXPECT_EQ(with("Person"), "_objectCategory=Person, uidNumber=" + own + ", gidNumber=" +
                                  std::to_string(*idsOn().first() + 513) + ", unixHomeDirectory=/home/, ");
}

TEST(AdObject, StoredNumbersStandBesideMadeOnes) {
    const std::string sid = sidBytes("S-1-5-21-1-2-3-1104").value();
    const std::string own = std::to_string(*idsOn().first() + 1104);
    EXPECT_EQ(numbersOf(person({{"objectSid", {sid}},
                                {"gidNumber", {"5"}},
                                {"unixHomeDirectory", {"/h"}},
                                {"sAMAccountName", {"ann"}}})),
              "_objectCategory=Person, gidNumber=5, unixHomeDirectory=/h, uidNumber=" + own + ", ");
    // Without a primary group that can be read there is none of the number 0.
    EXPECT_EQ(numbersOf(person({{"objectSid", {sid}}, {"uidNumber", {"7"}}, {"sAMAccountName", {"ann"}}})),
              "_objectCategory=Person, uidNumber=7, gidNumber=" + std::to_string(*idsOn().first()) +
                  ", unixHomeDirectory=/home/ann, ");
    // Nobody of another domain gets a home.
    EXPECT_EQ(numbersOf(person({{"objectSid", {sidBytes("S-1-5-21-9-9-9-1104").value()}}})),
              "_objectCategory=Person, _nssEntryInvalid=TRUE, gidNumber=" + std::to_string(*idsOn().first()) +
                  ", ");
}

TEST(AdObject, OfUseIsWhatUnixCanDoWith) {
    const auto marked = [](std::vector<Attribute> attributes) {
        const Entry entry{"CN=x", std::move(attributes)};
        return shown(makeObject(entry, {}, noIds(), nullptr)).find("_nssEntryInvalid") != std::string::npos;
    };
    const Attribute isPerson{"objectClass", {"user"}}, isComputer{"objectClass", {"computer"}};
    const Attribute uid{"uidNumber", {"7"}}, gid{"gidNumber", {"8"}}, home{"unixHomeDirectory", {"/h"}};
    EXPECT_FALSE(marked({isPerson, uid, gid, home}));
    EXPECT_TRUE(marked({isPerson, gid, home}));
    EXPECT_TRUE(marked({isPerson, uid, home}));
    EXPECT_TRUE(marked({isPerson, uid, gid}));
    EXPECT_FALSE(marked({isComputer, {"ipHostNumber", {"10.0.0.1"}}}));
    EXPECT_FALSE(marked({isComputer, {"macAddress", {"0:0:0:0:0:1"}}}));
    EXPECT_FALSE(marked({isComputer, uid, gid, home}));
    EXPECT_TRUE(marked({isComputer, uid, gid}));
    EXPECT_FALSE(marked({{"objectClass", {"organizationalUnit"}}, {"uidNumber", {"0"}}}));
}

TEST(AdObject, WhatIsNotWantedIsNotShown) {
    const Entry entry = person({{"cn", {"Ann"}}, {"Mail", {"a@b"}}, {"memberUid", {"x"}}});
    const std::vector<std::string> members = {"ann"}, none;
    const auto names = [&](const View& view, const std::vector<std::string>* computed) {
        std::vector<std::string> found;
        for (const Attribute& attribute : makeObject(entry, view, noIds(), computed))
            found.push_back(attribute.name);
        return std::vector<std::string>(found.begin() + 4, found.end());
    };
    EXPECT_THAT(names({true, {"mail"}}, nullptr), ElementsAre("Mail"));
    EXPECT_THAT(names({true, {"x", "*"}}, nullptr),
                ElementsAre("objectGUID", "objectClass", "cn", "Mail", "memberUid"));
    EXPECT_THAT(names({true, {}}, &members),
                ElementsAre("objectGUID", "objectClass", "cn", "Mail", "memberUid"));
    EXPECT_THAT(names({true, {"memberUid"}}, &none), ElementsAre());
}

TEST(AdObject, ItsSizeIsThatOfItsTextsAndSomeMore) {
    EXPECT_EQ(entryBytes({"", {}}), 64u);
    EXPECT_EQ(entryBytes({"CN=x", {{"cn", {"abc", "d"}}, {"sn", {}}}}),
              64u + 4 + (24 + 2) + (12 + 3) + (12 + 1) + (24 + 2));
}

}  // namespace
}  // namespace vexagent
