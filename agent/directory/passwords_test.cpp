// SPDX-License-Identifier: Apache-2.0
#include "agent/directory/passwords.h"

#include <crypt.h>
#include <gtest/gtest.h>

namespace vexagent {
namespace {

using namespace std::string_literals;

// Cheap to compute: what counts here is the rules around it.
std::string hashOf(const std::string& password, const char* setting = "$5$rounds=1000$salt$") {
    crypt_data data{};
    const char* hash = crypt_r(password.c_str(), setting, &data);
    return hash == nullptr ? "" : hash;
}

const std::string kIdle = "$5$rounds=1000$idle$";

bool fits(const std::string& password, const std::vector<std::string>& stored) {
    return fitsAnyHash(password, {stored.begin(), stored.end()}, kIdle);
}

TEST(Passwords, FitTheirHash) {
    EXPECT_TRUE(fits("welcome", {hashOf("welcome")}));
    EXPECT_FALSE(fits("Welcome", {hashOf("welcome")}));
    EXPECT_FALSE(fits("", {hashOf("welcome")}));
}

TEST(Passwords, TheSchemeMayStandBeforeTheHashInAnyCase) {
    EXPECT_TRUE(fits("welcome", {"{CRYPT}" + hashOf("welcome")}));
    EXPECT_TRUE(fits("welcome", {"{crypt}" + hashOf("welcome")}));
    EXPECT_FALSE(fits("welcome", {"{SSHA}" + hashOf("welcome")}));
    EXPECT_FALSE(fits("welcome", {"{CRYPT}"}));
}

TEST(Passwords, AnyOfSeveralHashesWillDo) {
    const std::vector<std::string> both = {hashOf("new"), hashOf("old")};
    EXPECT_TRUE(fits("old", both));
    EXPECT_TRUE(fits("new", both));
    EXPECT_FALSE(fits("older", both));
}

TEST(Passwords, ALockedHashAndPlainTextFitNothing) {
    EXPECT_FALSE(fits("welcome", {"!" + hashOf("welcome")}));
    EXPECT_FALSE(fits("welcome", {"*"}));
    EXPECT_FALSE(fits("welcome", {"*0"}));
    EXPECT_FALSE(fits("welcome", {"welcome"})) << "is no hash";
    EXPECT_FALSE(fits("*0", {"*0"}));
    EXPECT_FALSE(fits("", {""}));
    EXPECT_FALSE(fits("welcome", {}));
}

TEST(Passwords, WithANulInsideAreWrong) {
    EXPECT_FALSE(fits("welcome\0"s, {hashOf("welcome")}));
    EXPECT_FALSE(fits("welcome\0junk"s, {hashOf("welcome")}));
    EXPECT_FALSE(fits("\0"s, {hashOf("")}));
    EXPECT_EQ(newHash("welcome\0junk"s), "");
}

TEST(Passwords, WhatFitsIsAccepted) {
    EXPECT_TRUE(acceptedByHash("welcome", {hashOf("welcome")}, kIdle));
    EXPECT_FALSE(acceptedByHash("wrong", {hashOf("welcome")}, kIdle));
    EXPECT_FALSE(acceptedByHash("welcome", {}, kIdle));
}

TEST(Passwords, ANewHashIsYescryptWithASaltOfItsOwn) {
    const std::string hash = newHash("welcome");
    EXPECT_TRUE(hash.starts_with("$y$")) << hash;
    EXPECT_TRUE(fits("welcome", {hash}));
    EXPECT_FALSE(fits("wrong", {hash}));
    EXPECT_NE(newHash("welcome"), hash);
}

TEST(Passwords, TheSettingIsAllButTheHash) {
    EXPECT_EQ(settingOf("$5$rounds=1000$salt$hash"), "$5$rounds=1000$salt");
    EXPECT_EQ(settingOf("{CRYPT}$y$j9T$salt$hash"), "$y$j9T$salt");
    EXPECT_EQ(settingOf("$2b$05$abcdefghijklmnopqrstuvHASH"), "$2b$05$abcdefghijklmnopqrstuv");
    EXPECT_EQ(settingOf("_J9..rasmBYk8r9AiWNc"), "_J9..rasm");
    EXPECT_EQ(settingOf("abJnggxhB/yWI"), "ab");
    EXPECT_EQ(settingOf("{SSHA}xyz"), "");
    EXPECT_EQ(settingOf("!locked"), "");
    EXPECT_EQ(settingOf(""), "");
}

TEST(Passwords, AHashIsComputedByTheSettingOfAHash) {
    const std::string hash = hashOf("welcome");
    EXPECT_EQ(hashOf("welcome", settingOf(hash).c_str()), hash);
}

}  // namespace
}  // namespace vexagent
