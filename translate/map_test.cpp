// SPDX-License-Identifier: Apache-2.0
#include "translate/map.h"

#include <gtest/gtest.h>

namespace {

TEST(TranslationActive, NeedsAMapWithAnEntry) {
    EXPECT_FALSE(translation_active(nullptr));
    vorn::Properties map;
    EXPECT_FALSE(translation_active(&map));
    map.parse("# nothing but a comment\n", "test");
    EXPECT_FALSE(translation_active(&map));
    map.parse("posixAccount = User\n", "test");
    EXPECT_TRUE(translation_active(&map));
}

TEST(TranslationKey, IsTheTypeAFullStopAndTheName) {
    EXPECT_EQ(translation_key("posixAccount", "uid"), "posixAccount.uid");
    EXPECT_EQ(translation_key("PosixAccount ", " UID"), "PosixAccount . UID");
    EXPECT_EQ(translation_key("", "uid"), ".uid");
    EXPECT_EQ(translation_key("posixAccount", ""), "posixAccount.");
}

TEST(TranslateName, FindsTheWholeKeyInAnyCase) {
    vorn::Properties map;
    map.parse("posixAccount = User\nposixAccount.uid = sAMAccountName\nposixAccount.x =\n", "test");
    const struct {
        const char* key;
        const char* value;
    } cases[] = {
        {"posixAccount.uid", "sAMAccountName"},
        {"POSIXACCOUNT.UID", "sAMAccountName"},
        {"posixAccount", "User"},
        {"posixAccount.x", ""},
        {"posixAccount.ui", "fallback"},
        {"posixAccount.uids", "fallback"},
        {"posixAccoun", "fallback"},
        {"", "fallback"},
        {".uid", "fallback"},
    };
    for (const auto& c : cases) EXPECT_EQ(translate_name(&map, c.key, "fallback"), c.value) << c.key;
    EXPECT_EQ(translate_name(nullptr, "posixAccount.uid", "fallback"), "fallback");
    EXPECT_EQ(translate_name(&map, "unknown", ""), "");
}

}  // namespace
