// SPDX-License-Identifier: Apache-2.0
// What is kept of the thread's last list of attributes is used for its like only.
#include "search/attributes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "search/fixture_testing.h"

#include "tests/standin/slapd_standin.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Names as slapd hands them over: ended by one without text.
class Names {
  public:
    explicit Names(std::vector<std::string> texts) : m_texts(std::move(texts)) {
        for (std::string& text : m_texts)
            m_names.push_back({{text.size(), text.data()}, nullptr, 0, nullptr});
        m_names.push_back({});
    }
    const AttributeName* get() const { return m_names.data(); }

  private:
    std::vector<std::string> m_texts;
    std::vector<AttributeName> m_names;
};

class AttributesTest : public searchtest::Fixture {
  protected:
    AttributeNames translate(const std::vector<std::string>& names, const std::string& type = "posixAccount",
                             const std::string& agentType = "User") {
        return translateAttributes(Names(names).get(), type, agentType).attributes;
    }
};

TEST_F(AttributesTest, EachListIsTranslatedByItself) {
    useMap("posixAccount = User\nposixAccount.uid = sAMAccountName\nposixGroup.uid = name\n");
    for (int time = 0; time < 2; ++time) {
        EXPECT_THAT(translate({"uid"}), ElementsAre("sAMAccountName", "_objectCategory", "_nssEntryInvalid"));
        EXPECT_THAT(translate({"uid", "mail"}),
                    ElementsAre("sAMAccountName", "mail", "_objectCategory", "_nssEntryInvalid"));
        EXPECT_THAT(translate({"uid"}), ElementsAre("sAMAccountName", "_objectCategory", "_nssEntryInvalid"))
            << "the beginning of the one before";
        EXPECT_THAT(translate({"UID"}), ElementsAre("sAMAccountName", "_objectCategory", "_nssEntryInvalid"));
        EXPECT_THAT(translate({"uid"}, "posixGroup"),
                    ElementsAre("name", "_objectCategory", "_nssEntryInvalid"));
        EXPECT_THAT(translate({"uid"}, "posixGroup", ""), ElementsAre("uid"));
        EXPECT_THAT(translate({}), IsEmpty());
    }
    EXPECT_THAT(translateAttributes(nullptr, "posixAccount", "User").attributes, IsEmpty());
}

TEST_F(AttributesTest, TheSpellingIsTheLastClients) {
    translate({"uid"});
    EXPECT_THAT(translateAttributes(Names({"UID"}).get(), "posixAccount", "User").asked, ElementsAre("UID"));
}

TEST_F(AttributesTest, WithAnotherMapNothingOfTheLastOneIsLeft) {
    useMap("posixAccount = User\nposixAccount.uid = sAMAccountName\n");
    translate({"uid"});
    m_map->parse("posixAccount.uid = mail\n", "map");
    EXPECT_THAT(translate({"uid"}), ElementsAre("mail", "_objectCategory", "_nssEntryInvalid"));
    useMap("posixAccount = User\n");
    EXPECT_THAT(translate({"uid"}), ElementsAre("uid", "_objectCategory", "_nssEntryInvalid"));
    gTranslationMap = nullptr;
    EXPECT_THAT(translate({"uid"}), ElementsAre("uid", "_objectCategory", "_nssEntryInvalid"));
}

TEST_F(AttributesTest, ALongListIsCutAlikeEachTime) {
    const std::vector<std::string> names(130, "mail");
    for (int time = 0; time < 2; ++time) EXPECT_EQ(translate(names, "", "").size(), 127U);
}

// In a process of its own, in which nobody has asked before.
TEST_F(AttributesTest, TheFirstQuestionIsAnsweredByTheFirstList) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            useCache({"mail"});
            ::_exit(attributesAreCacheable({}) ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(AttributesTest, ANameThatWasGivenOnceIsNotGivenTwice) {
    translate({"uid", "uid"}, "", "");
    EXPECT_THAT(translate({"uid"}, "", ""), ElementsAre("uid"));
    translate({"uid", "mail"}, "", "");
    EXPECT_THAT(translate({"uid", "cn"}, "", ""), ElementsAre("uid", "cn"));
}

TEST_F(AttributesTest, WhatCanBeCachedIsAskedAnewWhenTheListIsAnother) {
    EXPECT_FALSE(attributesAreCacheable({"mail"})) << "before the first bind";
    useCache({"mail"});
    for (int time = 0; time < 2; ++time) {
        EXPECT_TRUE(attributesAreCacheable({"mail"}));
        EXPECT_TRUE(attributesAreCacheable({"mail", "_objectCategory"}));
        EXPECT_FALSE(attributesAreCacheable({"mail", "uid"}));
        EXPECT_TRUE(attributesAreCacheable({}));
    }
    vexFreeStringSet(gSupportedObjectAttrList.exchange(nullptr));
    EXPECT_FALSE(attributesAreCacheable({})) << "without a list";
    useCache({"uid"});
    EXPECT_FALSE(attributesAreCacheable({"mail", "uid"}));
    EXPECT_TRUE(attributesAreCacheable({"uid"}));
}

}  // namespace
