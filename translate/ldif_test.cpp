// SPDX-License-Identifier: Apache-2.0
#include "translate/ldif.h"

#include <gmock/gmock.h>

#include <random>

#include "backend/base/settings.h"
#include "tests/standin/captured.h"
#include "tests/standin/vex_standin.h"
#include "translate/ldif_reader_testing.h"
#include "vex/handles.h"
#include "vorn/utf8.h"

#include "tests/standin/slapd_standin.h"

namespace {

using standin::Object;
using testing::IsEmpty;

constexpr char kMap[] =
    "posixAccount = User\n"
    "posixAccount.uid = sAMAccountName\n"
    "posixAccount.CN = sAMAccountName\n"
    "posixAccount.homeDirectory = unixHomeDirectory\n"
    "posixAccount.dn = mail\n"
    "posixAccount.gecos = displayName\n"
    "posixGroup = Group\n"
    "posixGroup.mail = posixgroup\n"
    "nisMap = nisMap\n"
    "nisMap.cn =\n";

Object person(const Object& more = {}) {
    Object object = {{"_dn", {"CN=Ann Lee,OU=Staff,DC=example,DC=com"}},
                     {"_GUID", {"0a"}},
                     {"_objectCategory", {"Person"}},
                     {"sAMAccountName", {"ann"}}};
    for (auto& attribute : more) object.push_back(attribute);
    return object;
}

class Ldif : public testing::Test {
  protected:
    Ldif() {
        standin::reset();
        standin::resetSlapd();
        m_map.parse(kMap, "test");
        gTranslationMap = &m_map;
    }
    ~Ldif() override {
        gTranslationMap = nullptr;
        EXPECT_THAT(standin::leaks(), IsEmpty());
        EXPECT_THAT(standin::failures(), IsEmpty());
    }

    static std::string convert(Object content, const LdifRequest& request) {
        const vex::UniqueObject object(standin::makeObject(std::move(content)));
        return object_to_ldif(nullptr, object.get(), request);
    }
    static LdifRequest posixAccount() { return {"posixAccount", false, {}, false}; }

    vorn::Properties m_map;
};

std::string lines(std::string_view name, const std::vector<vexBlob>& values) {
    std::string ldif;
    attr_values_to_ldif(&ldif, name, values.data(), static_cast<int>(values.size()));
    return ldif;
}

vexBlob blob(std::string_view bytes) {
    return {static_cast<std::uint32_t>(bytes.size()), reinterpret_cast<const unsigned char*>(bytes.data())};
}

TEST(AttrValuesToLdif, OneLineAValue) {
    EXPECT_EQ(lines("cn", {}), "");
    EXPECT_EQ(lines("cn", {blob("Ann")}), "cn: Ann\n");
    EXPECT_EQ(lines("cn", {blob("Ann"), blob("Bo b")}), "cn: Ann\ncn: Bo b\n");
    EXPECT_EQ(lines("cn", {blob("")}), "cn: \n");
    EXPECT_EQ(lines("cn", {blob("J\xC3\xBCrgen")}), "cn:: SsO8cmdlbg==\n");
    EXPECT_EQ(lines("cn", {blob(" a")}), "cn:: IGE=\n");
    EXPECT_EQ(lines("cn", {blob("a ")}), "cn:: YSA=\n");
    EXPECT_EQ(lines("cn", {blob(":a")}), "cn:: OmE=\n");
    EXPECT_EQ(lines("cn", {blob("<file:///etc/passwd")}), "cn:: PGZpbGU6Ly8vZXRjL3Bhc3N3ZA==\n");
    EXPECT_EQ(lines("cn", {blob("a\nb: c")}), "cn:: YQpiOiBj\n");
    EXPECT_EQ(lines("cn", {blob(std::string_view("\0", 1))}), "cn:: AA==\n");
    EXPECT_EQ(lines("cn", {blob("a:<#b")}), "cn: a:<#b\n");
}

TEST(AttrValuesToLdif, AValueWithoutDataLeavesTheBareName) {
    EXPECT_EQ(lines("cn", {{0, nullptr}}), "cn");
    EXPECT_EQ(lines("cn", {{7, nullptr}, blob("a")}), "cncn: a\n");
    EXPECT_EQ(lines("cn", {blob("a"), {0, nullptr}}), "cn: a\ncn");
}

TEST_F(Ldif, WithoutATypeTheAgentsNamesStay) {
    const Object object = person({{"objectClass", {"top", "user"}},
                                  {"objectCategory", {"CN=Person,CN=Schema"}},
                                  {"mail", {"a@x", "b@x"}}});
    const std::string expected =
        "dn: CN=Ann Lee,OU=Staff,DC=example,DC=com\n"
        "sAMAccountName: ann\n"
        "objectClass: top\n"
        "objectClass: user\n"
        "objectCategory: CN=Person,CN=Schema\n"
        "mail: a@x\n"
        "mail: b@x\n";
    EXPECT_EQ(convert(object, {}), expected);
    // An object of another category than the type's is written the same way.
    EXPECT_EQ(convert(object, {"posixGroup", false, {}, false}), expected);
    EXPECT_EQ(convert(object, {"unknownType", false, {}, false}), expected);
    gTranslationMap = nullptr;
    EXPECT_EQ(convert(object, posixAccount()), expected);
}

TEST_F(Ldif, MappedAttributesComeFirstInTheMapsOrder) {
    EXPECT_EQ(convert(person({{"unixHomeDirectory", {"/home/ann"}},
                              {"displayName", {"Ann Lee"}},
                              {"objectClass", {"top", "person", "user"}},
                              {"objectCategory", {"CN=Person"}},
                              {"uid", {"other"}},
                              {"cn", {"Ann Lee"}},
                              {"mail", {"a@x"}}}),
                      posixAccount()),
              "dn: cn=ann,OU=Staff,DC=example,DC=com\n"
              "gecos: Ann Lee\n"
              "homeDirectory: /home/ann\n"
              "uid: ann\n"
              "sAMAccountName: ann\n"
              "unixHomeDirectory: /home/ann\n"
              "displayName: Ann Lee\n"
              "objectClass: top\n"
              "objectClass: posixAccount\n"
              "cn: Ann Lee\n"
              "mail: a@x\n");
}

TEST_F(Ldif, MappedCnForThoseWhoAskForIt) {
    LdifRequest request = posixAccount();
    request.includeCn = true;
    // The map's spelling of the name is not the agent's: both are written.
    EXPECT_EQ(convert(person({{"cn", {"Ann Lee"}}, {"CN", {"x"}}}), request),
              "dn: cn=ann,OU=Staff,DC=example,DC=com\n"
              "CN: ann\n"
              "uid: ann\n"
              "sAMAccountName: ann\n"
              "cn: Ann Lee\n");
}

TEST_F(Ldif, OnlyWhatIsRequested) {
    LdifRequest request = posixAccount();
    request.requested = {"SAMACCOUNTNAME", "objectclass", "_objectCategory"};
    const Object object = person({{"mail", {"a@x"}}, {"OBJECTCLASS", {"user"}}, {"displayName", {"Ann"}}});
    EXPECT_EQ(convert(object, request),
              "dn: cn=ann,OU=Staff,DC=example,DC=com\n"
              "uid: ann\n"
              "sAMAccountName: ann\n"
              "OBJECTCLASS: top\n"
              "OBJECTCLASS: posixAccount\n");
    request.requested = {"_dn"};
    EXPECT_EQ(convert(object, request), "dn: cn=ann,OU=Staff,DC=example,DC=com\n");
}

TEST_F(Ldif, CategoriesThatFitTheType) {
    const auto isMapped = [](const char* category, const char* type) {
        const Object object = {
            {"_dn", {"CN=a,DC=x"}}, {"_objectCategory", {category}}, {"objectClass", {"own"}}};
        return convert(object, {type, false, {}, false}).find("objectClass: top") != std::string::npos;
    };
    EXPECT_TRUE(isMapped("User", "posixAccount"));
    EXPECT_TRUE(isMapped("uSER", "POSIXACCOUNT"));
    EXPECT_TRUE(isMapped("Person", "posixAccount"));
    EXPECT_FALSE(isMapped("person", "posixAccount"));
    EXPECT_FALSE(isMapped("Computer", "posixAccount"));
    EXPECT_TRUE(isMapped("Group", "posixGroup"));
    EXPECT_FALSE(isMapped("Person", "posixGroup"));
    // A type that the map does not name stands for itself.
    EXPECT_TRUE(isMapped("SITE", "site"));
    m_map.parse("lowerCase = user\n", "test");
    EXPECT_FALSE(isMapped("Person", "lowerCase"));
}

TEST_F(Ldif, NeitherAMappedDnNorTheCategoryIsWrittenInAnyCase) {
    m_map.parse("site.DN = mail\n", "test");
    EXPECT_EQ(
        convert(
            {{"_dn", {"CN=s"}}, {"_objectCategory", {"site"}}, {"OBJECTCATEGORY", {"x"}}, {"mail", {"m"}}},
            {"site", false, {}, false}),
        "dn: CN=s\nmail: m\n");
}

TEST_F(Ldif, AnEntryThatNamesTheTypeItselfIsNoAttribute) {
    EXPECT_EQ(convert({{"_dn", {"CN=g"}}, {"_objectCategory", {"Group"}}, {"posixgroup", {"x"}}},
                      {"posixGroup", false, {}, false}),
              "dn: CN=g\nposixgroup: x\n");
}

TEST_F(Ldif, DnLine) {
    const LdifRequest request = posixAccount();
    const auto firstLine = [&](Object object) {
        const std::string ldif = convert(std::move(object), request);
        return ldif.substr(0, ldif.find('\n'));
    };
    EXPECT_EQ(
        firstLine(
            {{"_dn", {"CN=A\\,B, OU=x,DC=y"}}, {"_objectCategory", {"Person"}}, {"sAMAccountName", {"ann"}}}),
        "dn: cn=ann,OU=x,DC=y");
    // Without a parent the whole DN follows the new name.
    EXPECT_EQ(firstLine({{"_dn", {"CN=Ann"}}, {"_objectCategory", {"Person"}}, {"sAMAccountName", {"a"}}}),
              "dn: cn=a,CN=Ann");
    // Without the attribute the DN stays as it is.
    const standin::CapturedStderr captured;
    EXPECT_EQ(firstLine({{"_dn", {"CN=Ann,DC=x"}}, {"_objectCategory", {"Person"}}}), "dn: CN=Ann,DC=x");
    EXPECT_EQ(captured.text(),
              "dirgate ERROR: Failed to retrieve sAMAccountName from object: no such attribute\n");
    // An entry of the map without a value rewrites nothing.
    EXPECT_EQ(convert({{"_dn", {"CN=m,DC=x"}}, {"_objectCategory", {"nisMap"}}}, {"nisMap", true, {}, false}),
              "dn: CN=m,DC=x\n");
}

TEST_F(Ldif, ALineBreakInTheNameWritesNoLines) {
    const Object object = {{"_dn", {"CN=Ann,DC=x"}},
                           {"_objectCategory", {"Person"}},
                           {"sAMAccountName", {"ann,DC=x\nuidNumber: 0"}}};
    const auto read = readLdif(convert(object, posixAccount()));
    EXPECT_EQ(read.at(0), (LdifLine{"dn", "cn=ann,DC=x\nuidNumber: 0,DC=x", true}));
    for (const LdifLine& line : read) EXPECT_NE(line.name, "uidNumber");
}

TEST_F(Ldif, AnEmptyDnLine) {
    LdifRequest request = posixAccount();
    request.omitDn = true;
    EXPECT_EQ(convert(person(), request), "dn: \nuid: ann\nsAMAccountName: ann\n");
}

TEST_F(Ldif, UnreadableParts) {
    const standin::CapturedStderr errors;
    const standin::CapturedLog log;
    Object object = {{"_dn", {"CN=a,DC=x"}}, standin::unreadable("_objectCategory", 6), {"cn", {"a"}}};
    EXPECT_EQ(convert(object, posixAccount()), "dn: CN=a,DC=x\ncn: a\n");
    object = {standin::unreadable("_dn", 8), {"_objectCategory", {"Person"}}, {"sAMAccountName", {"a"}}};
    EXPECT_EQ(convert(object, posixAccount()), "uid: a\nsAMAccountName: a\n");
    EXPECT_EQ(convert({{"_dn", {"CN=a"}}, standin::unreadable("mail", 6), {"cn", {"a"}}}, {}),
              "dn: CN=a\ncn: a\n");
    EXPECT_EQ(convert({{"_dn", {"CN=a"}}, standin::nameless(), {"cn", {"a"}}}, {}), "dn: CN=a\ncn: a\n");
    // Neither the DN that is not written is read, nor a category without a type.
    EXPECT_EQ(
        convert({standin::unreadable("_dn", 8), standin::unreadable("_objectCategory", 6), {"cn", {"a"}}},
                {"", false, {}, true}),
        "dn: \ncn: a\n");

    const char* text = nullptr;
    vexGetVexCodeStr(6, &text);
    const std::string broken = text;
    vexGetVexCodeStr(8, &text);
    const std::string directory = text;
    vexGetVexCodeStr(10, &text);
    const std::string missing = text;
    EXPECT_EQ(errors.text(), "dirgate ERROR: Failed to retrieve _objectCategory from object: " + broken +
                                 "\ndirgate ERROR: object_to_ldif: Error rc = " + directory +
                                 " (8) from vexGetAttributeStr getting dn\n");
    EXPECT_TRUE(
        log.has("object_to_ldif: " + missing + " (10):unixHomeDirectory from vexGetAttributeBlobList"));
    EXPECT_TRUE(log.has("object_to_ldif: Error rc = " + broken + " (6) from vexGetAttributeList"));
    EXPECT_FALSE(log.has("object_to_ldif: attrName = mail, value[0] = <binary data>"));
}

TEST_F(Ldif, AnAttributeThatCannotBeReadIsNoneOfThoseMapped) {
    EXPECT_EQ(
        convert(person({standin::unreadable("displayName", 8), {"gecos", {"her own"}}}), posixAccount()),
        "dn: cn=ann,OU=Staff,DC=example,DC=com\nuid: ann\nsAMAccountName: ann\ngecos: her own\n");
}

TEST_F(Ldif, AValueWithoutDataIsABareName) {
    EXPECT_EQ(convert({{"_dn", {"CN=a"}}, {"mail", {standin::noData()}}}, {}), "dn: CN=a\nmail");
}

TEST_F(Ldif, TellsWhoeverAsksThatItHasLoggedAnError) {
    const struct {
        Object object;
        bool complained;
    } cases[] = {
        {person(), false},
        {person({standin::unreadable("displayName", 8)}), false},
        {{{"_dn", {"CN=a"}}, standin::unreadable("_objectCategory", 8)}, true},
        {{{"_dn", {"CN=a,DC=x"}}, {"_objectCategory", {"Person"}}}, true},  // without a name for its DN
        {{standin::unreadable("_dn", 8), {"_objectCategory", {"Person"}}, {"sAMAccountName", {"a"}}}, true},
    };
    const standin::CapturedStderr errors;
    for (const auto& [content, expected] : cases) {
        const vex::UniqueObject object(standin::makeObject(content));
        for (const bool before : {false, true}) {
            bool complained = before;
            object_to_ldif(nullptr, object.get(), posixAccount(), &complained);
            EXPECT_EQ(complained, before || expected);
        }
    }
}

TEST_F(Ldif, TheCategoryIsReadBeforeTheMapIsLookedAt) {
    gTranslationMap = nullptr;
    const standin::CapturedStderr errors;
    EXPECT_EQ(convert({{"_dn", {"CN=a"}}, {"cn", {"a"}}}, posixAccount()), "dn: CN=a\ncn: a\n");
    EXPECT_EQ(errors.text(),
              "dirgate ERROR: Failed to retrieve _objectCategory from object: no such attribute\n");
}

TEST_F(Ldif, WhatTheLogShows) {
    standin::knowAttribute("userCertificate", true);
    standin::knowAttribute("cACertificate", true);
    const standin::CapturedLog log;
    convert(person({{"objectCategory", {"x"}},
                    {"mail", {"a@x"}},
                    {"blank", {" x"}},
                    {"high", {"\xC3\xBC"}},
                    {"empty", {""}},
                    {"none", {}},
                    {"null", {standin::noData()}},
                    {"userCertificate", {" z"}},
                    {"cACertificate", {}}}),
            posixAccount());
    for (const char* line : {
             "object_to_ldif: mapping sAMAccountName to uid",
             "object_to_ldif: skipping objectCategory",
             "object_to_ldif: attrName = sAMAccountName, value[0] = ann",
             "object_to_ldif: attrName = mail, value[0] = a@x",
             "object_to_ldif: attrName = blank, value[0] = <binary data>",
             "object_to_ldif: attrName = high, value[0] = <binary data>",
             "object_to_ldif: attrName = empty, value[0] = <binary data>",
             "object_to_ldif: attrName = none, value[0] = <binary data>",
             "object_to_ldif: attrName = null, value[0] = <binary data>",
             "object_to_ldif: attrName = userCertificate, value[0] =  z",
             "object_to_ldif: attrName = cACertificate, value[0] = <binary data>",
         }) {
        EXPECT_EQ(log.count(line), 1) << line;
    }
}

TEST_F(Ldif, BinarySyntaxIsMarked) {
    standin::knowAttribute("userCertificate", true);
    standin::knowAttribute("mail");
    EXPECT_EQ(convert({{"_dn", {"CN=a"}}, {"UserCertificate", {"\x01"}}, {"mail", {"m"}}}, {}),
              "dn: CN=a\nUserCertificate;binary:: AQ==\nmail: m\n");
    // Mapped attributes never are.
    m_map.parse("posixAccount.userCertificate = cert\n", "test");
    const std::string ldif = convert(person({{"cert", {"\x01"}}}), posixAccount());
    EXPECT_NE(ldif.find("userCertificate:: AQ==\n"), std::string::npos);
}

// As slapd's text syntaxes, an octet string's, and one that is known and never looked at.
int isText(Syntax* /*syntax*/, berval* value) {
    return vorn::isUtf8({value->bv_val, value->bv_len}) ? LDAP_SUCCESS : LDAP_INVALID_SYNTAX;
}
int isAnything(Syntax* /*syntax*/, berval* /*value*/) {
    return LDAP_SUCCESS;
}
void knowWithValidator(const char* name, slap_syntax_validate_func* validate, bool binary = false) {
    standin::knowAttribute(name, binary)->ad_type->sat_syntax->ssyn_validate = validate;
}

TEST_F(Ldif, ValuesThatAreNotUtf8AreLeftOutOfTextsAndNowhereElse) {
    knowWithValidator("description", isText);
    knowWithValidator("gecos", isText);
    knowWithValidator("objectSid", isAnything);
    knowWithValidator("userCertificate", isText, true);
    standin::knowAttribute("photo");
    const standin::CapturedStderr errors;
    EXPECT_EQ(
        convert(person({{"description", {"one", "J\xFCrgen", "J\xC3\xBCrgen"}},
                        {"objectSid", {"\xFC"}},
                        {"userCertificate", {"\xFC"}},
                        {"photo", {"\xFC"}},
                        {"unheardOf", {"\xFC"}},
                        {"displayName", {"Ann", "\xC3"}}}),
                posixAccount()),
        "dn: cn=ann,OU=Staff,DC=example,DC=com\ngecos: Ann\nuid: ann\nsAMAccountName: ann\n"
        "description: one\ndescription:: SsO8cmdlbg==\nobjectSid:: /A==\nuserCertificate;binary:: /A==\n"
        "photo:: /A==\nunheardOf:: /A==\ndisplayName: Ann\ndisplayName:: ww==\n");
}

TEST_F(Ldif, WhatIsLeftOutIsToldOnceForAnObjectsAttribute) {
    for (const char* name : {"description", "info"}) knowWithValidator(name, isText);
    const standin::CapturedLog log;
    const standin::CapturedStderr errors;
    const auto told = [&](const std::string& attribute, const std::string& dn) {
        return log.count("dirgate ERROR: object_to_ldif: left out what is not UTF-8 of " + attribute +
                         " of " + dn);
    };
    for (int time = 0; time < 3; ++time) {
        convert({{"_dn", {"CN=odd 1"}}, {"description", {"\xFC", "\xFD"}}, {"info", {"\xFC"}}}, {});
        convert({{"_dn", {"CN=odd 2"}}, {"description", {"\xFC"}}, {"info", {"fine"}}}, {});
    }
    EXPECT_EQ(told("description", "CN=odd 1"), 1);
    EXPECT_EQ(told("info", "CN=odd 1"), 1);
    EXPECT_EQ(told("description", "CN=odd 2"), 1);
    EXPECT_EQ(told("info", "CN=odd 2"), 0);
}

TEST_F(Ldif, WhatIsLeftOutOfAnObjectWithoutANameIsNotTold) {
    knowWithValidator("description", isText);
    const standin::CapturedStderr errors;
    EXPECT_EQ(convert({{"description", {"\xFC"}}, {"info", {"fine"}}}, {"", false, {}, true}),
              "dn: \ninfo: fine\n");
    EXPECT_EQ(errors.text(), "");
}

// There is room for the names of a megabyte.
TEST_F(Ldif, OfTooManyThatAreLeftOutTheFirstIsToldAgain) {
    knowWithValidator("description", isText);
    const standin::CapturedLog log;
    const standin::CapturedStderr errors;
    const auto read = [](const std::string& dn) {
        convert({{"_dn", {dn.c_str()}}, {"description", {"\xFC"}}}, {});
    };
    const auto told = [&] {
        return log.count(
            "dirgate ERROR: object_to_ldif: left out what is not UTF-8 of description of CN=the first");
    };
    const auto readOthers = [&](char kind, int count) {
        for (int i = 0; i < count; ++i) read("CN=" + std::string(10'000, kind) + std::to_string(i));
    };
    readOthers('a', 220);  // whatever was remembered before is forgotten
    read("CN=the first");
    const int once = told();
    readOthers('b', 80);
    read("CN=the first");
    EXPECT_EQ(told(), once);
    readOthers('c', 20);
    read("CN=the first");
    EXPECT_EQ(told(), once + 1);
}

// slapd is asked about bytes that are not UTF-8 alone.
TEST_F(Ldif, ATextIsNotValidated) {
    static int asked = 0;
    knowWithValidator("description", [](Syntax*, berval*) { return ++asked; });
    convert({{"_dn", {"CN=a"}}, {"description", {"", "one", "\xC3\xBC", std::string(5000, 'x')}}}, {});
    EXPECT_EQ(asked, 0);
    const standin::CapturedStderr errors;
    convert({{"_dn", {"CN=a"}}, {"description", {"one", "\xFC"}}}, {});
    EXPECT_EQ(asked, 1);
}

TEST_F(Ldif, WhatIsLeftOutIsNoErrorOfTheConversion) {
    knowWithValidator("description", isText);
    const standin::CapturedStderr errors;
    const vex::UniqueObject object(standin::makeObject({{"_dn", {"CN=odd 3"}}, {"description", {"\xFC"}}}));
    bool complained = false;
    EXPECT_EQ(object_to_ldif(nullptr, object.get(), {}, &complained), "dn: CN=odd 3\n");
    EXPECT_FALSE(complained) << "so the entry may be kept";
}

TEST_F(Ldif, GeneratedObjectsComeBackWhole) {
    std::mt19937 random(5);
    for (int round = 0; round < 300; ++round) {
        Object object = {{"_dn", {"CN=a,DC=x"}}};
        std::vector<LdifLine> expected;
        for (unsigned i = 0; i < random() % 12; ++i) {
            standin::Attribute attribute{(random() % 2 ? "ATTR" : "attr") + std::to_string(i), {}};
            for (unsigned v = random() % 4; v > 0; --v) {
                std::string value(random() % 70, '\0');
                const bool text = random() % 2;
                for (char& c : value) c = static_cast<char>(text ? ' ' + random() % 95 : random());
                expected.push_back({attribute.name, value, false});
                attribute.values.emplace_back(value);
            }
            object.push_back(attribute);
        }
        auto read = readLdif(convert(object, {}));
        ASSERT_EQ(read.size(), expected.size() + 1);
        for (std::size_t i = 0; i < expected.size(); ++i) {
            EXPECT_EQ(read[i + 1].name, expected[i].name);
            EXPECT_EQ(read[i + 1].value, expected[i].value);
        }
    }
}

TEST_F(Ldif, LargeObjects) {
    Object object = {{"_dn", {"CN=a,DC=x"}}};
    standin::Attribute members{"member", {}};
    for (int i = 0; i < 5000; ++i) members.values.emplace_back("CN=user" + std::to_string(i) + ",DC=x");
    std::string photo(1 << 20, '\0');
    for (std::size_t i = 0; i < photo.size(); ++i) photo[i] = static_cast<char>(i * 7 + i / 251);
    const std::string note(1 << 20, 'n');
    object.push_back(members);
    object.push_back({"thumbnailPhoto", {photo}});
    object.push_back({"info", {note}});
    const auto read = readLdif(convert(object, {}));
    ASSERT_EQ(read.size(), 5003U);
    EXPECT_EQ(read[5000].value, "CN=user4999,DC=x");
    EXPECT_TRUE(read[5001].value == photo);
    EXPECT_TRUE(read[5001].base64);
    EXPECT_TRUE(read[5002].value == note);
    EXPECT_FALSE(read[5002].base64);
}

}  // namespace
