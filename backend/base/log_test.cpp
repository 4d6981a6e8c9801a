// SPDX-License-Identifier: Apache-2.0
#include "backend/base/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/standin/captured.h"
#include "vorn/logger.h"

#include "tests/standin/slapd_standin.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

class LoggingTest : public testing::Test {
  protected:
    LoggingTest() { standin::resetSlapd(); }
};

TEST_F(LoggingTest, InformationReachesTheChannelAndNotStandardError) {
    const standin::CapturedLog log;
    const standin::CapturedStderr captured;
    JPrintf("vex search scope = %d", 2);
    ASSERT_EQ(log.records().size(), 1U);
    EXPECT_THAT(log.records()[0], EndsWith("vex search scope = 2"));
    EXPECT_THAT(log.records()[0], HasSubstr("search:92 JPrintf"));
    EXPECT_EQ(captured.text(), "");
}

TEST_F(LoggingTest, InformationReachesStandardErrorInDebugMode) {
    const standin::CapturedLog log(vorn::Logger::kNothing);
    const standin::CapturedStderr captured;
    slap_debug = 1;
    EXPECT_TRUE(JPrintfEnabled());
    JPrintf("vex search scope = %d", 2);
    EXPECT_EQ(captured.text(), "vex search scope = 2\n");
    EXPECT_THAT(log.records(), IsEmpty());
}

TEST_F(LoggingTest, InformationGoesNowhereWithThresholdsAboveOneAndNoDebugMode) {
    const standin::CapturedLog log(vorn::Logger::kWarning);
    const standin::CapturedStderr captured;
    EXPECT_FALSE(JPrintfEnabled());
    JPrintf("nobody listens");
    EXPECT_EQ(captured.text(), "");
    EXPECT_THAT(log.records(), IsEmpty());
}

TEST_F(LoggingTest, ErrorsReachChannelAndStandardError) {
    const standin::CapturedLog log;
    const standin::CapturedStderr captured;
    JError("Unknown choice in filter: %d", 168);
    EXPECT_EQ(captured.text(), "dirgate ERROR: Unknown choice in filter: 168\n");
    ASSERT_EQ(log.records().size(), 1U);
    EXPECT_THAT(log.records()[0], EndsWith("dirgate ERROR: Unknown choice in filter: 168"));
    EXPECT_THAT(log.records()[0], HasSubstr("search:105 JError"));
}

TEST_F(LoggingTest, ErrorsReachTheChannelUpToThresholdThree) {
    for (const int level :
         {vorn::Logger::kTrace, vorn::Logger::kInfo, vorn::Logger::kWarning, vorn::Logger::kError}) {
        const standin::CapturedLog log(level);
        const standin::CapturedStderr captured;
        JError("told");
        EXPECT_TRUE(log.has("dirgate ERROR: told")) << "level " << level;
    }
}

TEST_F(LoggingTest, InformationReachesTheChannelUpToThresholdOne) {
    for (const int level : {vorn::Logger::kTrace, vorn::Logger::kInfo, vorn::Logger::kWarning}) {
        const standin::CapturedLog log(level);
        JPrintf("told");
        EXPECT_EQ(log.has("told"), level <= vorn::Logger::kInfo) << "level " << level;
        EXPECT_EQ(JPrintfEnabled(), level <= vorn::Logger::kInfo) << "level " << level;
    }
}

// "slapd -d any" is a negative level.
TEST_F(LoggingTest, ANegativeDebugLevelIsDebugModeToo) {
    const standin::CapturedLog log(vorn::Logger::kNothing);
    const standin::CapturedStderr captured;
    slap_debug = -1;
    EXPECT_TRUE(JPrintfEnabled());
    JPrintf("shown");
    EXPECT_EQ(captured.text(), "shown\n");
}

TEST_F(LoggingTest, ErrorsReachStandardErrorAlsoWithThresholdsAboveThree) {
    const standin::CapturedLog log(vorn::Logger::kNothing);
    const standin::CapturedStderr captured;
    JError("always");
    EXPECT_EQ(captured.text(), "dirgate ERROR: always\n");
    EXPECT_THAT(log.records(), IsEmpty());
}

TEST_F(LoggingTest, AMessageOf2000CharactersIsCutToItsFirst1021) {
    const standin::CapturedLog log;
    const standin::CapturedStderr captured;
    slap_debug = 1;
    std::string text(2000, 'x');
    for (std::size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>('a' + i % 26);
    JPrintf("%s", text.c_str());
    JError("%s", text.c_str());
    const std::string cut = text.substr(0, 1021);
    EXPECT_EQ(captured.text(), cut + "\ndirgate ERROR: " + cut + "\n");
    EXPECT_EQ(log.records().size(), 2U);
    EXPECT_TRUE(log.has(cut));
    EXPECT_TRUE(log.has("dirgate ERROR: " + cut));
}

TEST_F(LoggingTest, WhatIsPutIntoALineWritesNoOther) {
    const standin::CapturedLog log;
    const standin::CapturedStderr captured;
    slap_debug = 1;
    JPrintf("vex bind : called for dn: %s, with id: %lu", "cn=a\ndirgate ERROR: forged\xff", 7UL);
    JError("filter %s", "(cn=\r\nx)");
    JPrintf("filter = %s,\nold attrs = %s", "a", "b\nc");
    JPrintfLines("out_ldif = \n", "dn: a\ncn: b\n");
    const std::string bind = "vex bind : called for dn: cn=a\\0Adirgate ERROR: forged\\FF, with id: 7";
    const std::string error = "dirgate ERROR: filter (cn=\\0D\\0Ax)";
    EXPECT_EQ(captured.text(),
              bind + "\n" + error + "\nfilter = a,\nold attrs = b\\0Ac\nout_ldif = \ndn: a\ncn: b\n\n");
    EXPECT_TRUE(log.has(bind));
    EXPECT_TRUE(log.has(error));
    EXPECT_TRUE(log.has("old attrs = b\\0Ac"));
}

TEST_F(LoggingTest, AFilterIsShownWithoutWhatItAssertsOfSecrets) {
    const std::string filter = "(&(uid=ann)(userPassword=welcome))";
    {
        const standin::CapturedLog log;
        EXPECT_EQ(filterForLog(filter), "(&(uid=ann)(userPassword=***))");
    }
    const standin::CapturedLog log(vorn::Logger::kNothing);
    EXPECT_EQ(filterForLog(filter), "");
}

TEST_F(LoggingTest, AMessageOf1021CharactersIsWhole) {
    const standin::CapturedStderr captured;
    const std::string text(1021, 'y');
    JError("%s", text.c_str());
    EXPECT_EQ(captured.text(), "dirgate ERROR: " + text + "\n");
}

}  // namespace
