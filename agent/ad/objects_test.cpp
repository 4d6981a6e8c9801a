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

TEST(Range, TellsWhetherMoreFollows) {
    const struct {
        const char* text;
        bool isRange;
        const char* name;
        std::size_t next;
    } cases[] = {
        {"member;range=0-1499", true, "member", 1500},
        {"member;Range=1500-*", true, "member", 0},
        {"memberOf;range=0-0", true, "memberOf", 1},
        {"member", false, "", 0},
        {"member;binary", false, "", 0},
        {"member;range=0", false, "", 0},
        {"member;range=0-x", false, "", 0},
        {"member;range=0-99999999999999999999", false, "", 0},
    };
    for (const auto& [text, isRange, name, next] : cases) {
        RangedName ranged;
        EXPECT_EQ(parseRange(text, ranged), isRange) << text;
        if (!isRange) continue;
        EXPECT_EQ(ranged.name, name) << text;
        EXPECT_EQ(ranged.next, next) << text;
    }
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
    EXPECT_EQ(memberName(bare, noIds()), "");
    EXPECT_EQ(memberName(bare, idsOn()), "ann");
    numbered.attributes.push_back({"uid", {"annie"}});
    EXPECT_EQ(memberName(numbered, noIds()), "annie");
}

}  // namespace
}  // namespace vexagent
