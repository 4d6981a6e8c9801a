// SPDX-License-Identifier: Apache-2.0
// In which order an object's conversion reads, tells and asks what is wanted.
#include "translate/ldif.h"

#include <gmock/gmock.h>

#include "backend/base/settings.h"
#include "tests/standin/captured.h"
#include "tests/standin/vex_standin.h"
#include "vex/handles.h"

#include "tests/standin/slapd_standin.h"

namespace {

using standin::Object;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class LdifOrder : public testing::Test {
  protected:
    LdifOrder() {
        standin::reset();
        standin::resetSlapd();
        m_map.parse("site = site\nsite.cn = name\nsite.dn = mail\nsite.location = place\n", "test");
        gTranslationMap = &m_map;
    }
    ~LdifOrder() override {
        gTranslationMap = nullptr;
        EXPECT_THAT(standin::leaks(), IsEmpty());
        EXPECT_THAT(standin::failures(), IsEmpty());
    }

    static Object site(const Object& more = {}) {
        Object object = {{"_dn", {"CN=s,DC=x"}}, {"_objectCategory", {"site"}}, {"name", {"s"}}};
        for (const auto& attribute : more) object.push_back(attribute);
        return object;
    }
    static std::string convert(Object content, std::vector<std::string> requested = {},
                               bool includeCn = false) {
        const vex::UniqueObject object(standin::makeObject(std::move(content)));
        return object_to_ldif(nullptr, object.get(), {"site", includeCn, std::move(requested), false});
    }

    vorn::Properties m_map;
};

std::string failedRead(const std::string& attribute) {
    const char* text = nullptr;
    vexGetVexCodeStr(8, &text);
    return std::string("object_to_ldif: ") + text + " (8):" + attribute + " from vexGetAttributeBlobList";
}

TEST_F(LdifOrder, WhatIsNotWantedIsNotRead) {
    const standin::CapturedLog log;
    convert(site({standin::unreadable("place", 8)}), {"name"});
    EXPECT_FALSE(log.has(failedRead("place")));
    convert(site({standin::unreadable("place", 8)}), {"name", "place"});
    EXPECT_TRUE(log.has(failedRead("place")));
}

TEST_F(LdifOrder, CnAndDnAreReadBeforeTheyArePassedOver) {
    const standin::CapturedLog log;
    const standin::CapturedStderr errors;
    convert({{"_dn", {"CN=s,DC=x"}},
             {"_objectCategory", {"site"}},
             standin::unreadable("name", 8),
             standin::unreadable("mail", 8)});
    EXPECT_TRUE(log.has(failedRead("name")));
    EXPECT_TRUE(log.has(failedRead("mail")));
}

TEST_F(LdifOrder, ThePassedOverIsNotToldAsMapped) {
    const standin::CapturedLog log;
    convert(site({{"mail", {"m"}}, {"place", {"Bern"}}}));
    EXPECT_FALSE(log.has("object_to_ldif: mapping name to cn"));
    EXPECT_FALSE(log.has("object_to_ldif: mapping mail to dn"));
    EXPECT_TRUE(log.has("object_to_ldif: mapping place to location"));
}

TEST_F(LdifOrder, AMappedDnIsNeverWrittenNotEvenForThoseWhoAskForTheCn) {
    for (const bool includeCn : {false, true}) {
        const std::string ldif = convert(site({{"mail", {"m"}}}), {}, includeCn);
        EXPECT_THAT(ldif, Not(HasSubstr("\ndn:"))) << includeCn;
        EXPECT_EQ(ldif.find("\ncn: s\n") != std::string::npos, includeCn);
    }
}

TEST_F(LdifOrder, ACategoryThatIsNotWantedIsNotToldAsSkipped) {
    const standin::CapturedLog log;
    convert(site({{"objectCategory", {"x"}}}), {"name"});
    EXPECT_FALSE(log.has("object_to_ldif: skipping objectCategory"));
    convert(site({{"objectCategory", {"x"}}}), {"name", "objectCategory"});
    EXPECT_TRUE(log.has("object_to_ldif: skipping objectCategory"));
}

// A DN's or a number's syntax has flags too.
TEST_F(LdifOrder, OnlyTheBinaryFlagOfASyntaxMarksAValue) {
    for (unsigned bit = 0; bit < 16; ++bit) {
        const unsigned flag = 1U << bit;
        standin::knowAttributeWithFlags("manager", flag);
        EXPECT_THAT(convert(site({{"manager", {"CN=m"}}})),
                    HasSubstr(flag == SLAP_SYNTAX_BINARY ? "\nmanager;binary: CN=m\n" : "\nmanager: CN=m\n"))
            << flag;
    }
}

TEST_F(LdifOrder, DeleteIsNoGraphicCharacterAndTheTildeIsOne) {
    const standin::CapturedLog log;
    convert(site({{"tilde", {"~x"}}, {"bang", {"!x"}}, {"delete", {"\x7Fx"}}}));
    EXPECT_TRUE(log.has("object_to_ldif: attrName = tilde, value[0] = ~x"));
    EXPECT_TRUE(log.has("object_to_ldif: attrName = bang, value[0] = !x"));
    EXPECT_TRUE(log.has("object_to_ldif: attrName = delete, value[0] = <binary data>"));
}

// Whatever the code with which the walk over the attributes ends.
TEST_F(LdifOrder, TheWalkEndsWithTheFirstFailure) {
    for (const int code : {VEX_BROKEN_SESSION, VEX_NO_SUCH_ATTRIBUTE}) {
        standin::answer("vexGetNextAttribute", 0);
        standin::answer("vexGetNextAttribute", 0);
        standin::answer("vexGetNextAttribute", 0);
        standin::answer("vexGetNextAttribute", code);
        const std::string ldif = convert(site({{"place", {"Bern"}}, {"mail", {"m"}}}));
        EXPECT_THAT(ldif, HasSubstr("\nplace: Bern\n")) << code;
        EXPECT_THAT(ldif, Not(HasSubstr("\nmail: m\n"))) << code;
        standin::forgetCalls();
    }
}

}  // namespace
