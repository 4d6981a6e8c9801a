// SPDX-License-Identifier: Apache-2.0
#include "standard/spellings.h"

#include <gtest/gtest.h>

namespace standard {
namespace {

TEST(SpellingsOfNames, WhatPreparationMakesAsciiIsRemembered) {
    Spellings names;
    names.learn("cn=½ Half,dc=x", "cn=1⁄2 half,dc=x");
    names.learn("cn=Ｗａｎｄａ,dc=x", "cn=wanda,dc=x");
    names.learn("cn=soft\u00adhyphen,dc=x", "cn=softhyphen,dc=x");
    names.learn("cn=Ǆ,dc=x", "cn=dž,dc=x");
    EXPECT_EQ(names.of("cn=1⁄2 half,dc=x"), "cn=½ Half,dc=x");
    EXPECT_EQ(names.of("cn=dž,dc=x"), "cn=Ǆ,dc=x");
    EXPECT_EQ(names.of("cn=wanda,dc=x"), "cn=Ｗａｎｄａ,dc=x");
    EXPECT_EQ(names.of("cn=softhyphen,dc=x"), "cn=soft\u00adhyphen,dc=x");
    EXPECT_EQ(names.of("cn=nobody,dc=x"), std::nullopt);
}

TEST(SpellingsOfNames, TheDirectoryFindsOthersByThemselves) {
    Spellings names;
    names.learn("cn=Ann,dc=x", "cn=ann,dc=x");
    names.learn("cn=JOSÉ,dc=x", "cn=josé,dc=x");
    EXPECT_EQ(names.of("cn=ann,dc=x"), std::nullopt);
    EXPECT_EQ(names.of("cn=josé,dc=x"), std::nullopt);
}

TEST(SpellingsOfNames, OfTwoSpellingsTheLaterOneCounts) {
    Spellings names;
    names.learn("cn=Ａ,dc=x", "cn=a,dc=x");
    names.learn("cn=ａ,dc=x", "cn=a,dc=x");
    EXPECT_EQ(names.of("cn=a,dc=x"), "cn=ａ,dc=x");
}

TEST(SpellingsOfNames, TheyTakeNoMoreRoomThanTheyMay) {
    Spellings names(2);
    for (const char* letter : {"a", "b", "c"})
        names.learn("cn=ａ,ou=" + std::string(letter), "cn=a,ou=" + std::string(letter));
    EXPECT_EQ(names.of("cn=a,ou=a"), std::nullopt);
    EXPECT_EQ(names.of("cn=a,ou=c"), "cn=ａ,ou=c");
    names.learn("cn=ａ" + std::string(5000, 'x'), "cn=a" + std::string(5000, 'x'));
    EXPECT_EQ(names.of("cn=a" + std::string(5000, 'x')), std::nullopt);
}

}  // namespace
}  // namespace standard
