// SPDX-License-Identifier: Apache-2.0
#include "vorn/settings.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <set>
#include <thread>
#include <vector>

#include "vorn/temporary_folder_testing.h"

namespace vorn {
namespace {

using test::TemporaryFolder;

// Points the process at a settings file of the test's own, and back.
class Settings : public testing::Test {
  protected:
    void use(const std::string& text) {
        m_file = m_folder.write("zanthe.conf", text);
        setenv("ZANTHE_CONF", m_file.c_str(), 1);
    }
    ~Settings() override {
        setenv("ZANTHE_CONF", "/dev/null", 1);
        Props(true, false);
        unsetenv("ZANTHE_CONF");
    }

    const TemporaryFolder m_folder;
    std::string m_file;
};

TEST_F(Settings, TheFileIsTheStandardOneUnlessTheEnvironmentNamesAnother) {
    unsetenv("ZANTHE_CONF");
    EXPECT_EQ(settingsFile(), "/etc/zanthe/zanthe.conf");
    setenv("ZANTHE_CONF", "", 1);
    EXPECT_EQ(settingsFile(), "/etc/zanthe/zanthe.conf");
    setenv("ZANTHE_CONF", "/elsewhere/x.conf", 1);
    EXPECT_EQ(settingsFile(), "/elsewhere/x.conf");
}

TEST_F(Settings, AreReadOnceAndAnewWhenAskedTo) {
    use("domain.name = one.example\n");
    const Properties& settings = Props(true, false);
    EXPECT_EQ(settings.get("domain.name", ""), "one.example");
    use("zone.dn = CN=z,DC=example\n");
    EXPECT_EQ(Props(false, false).get("domain.name", ""), "one.example");
    EXPECT_EQ(&Props(true, false), &settings);
    EXPECT_EQ(settings.find("domain.name"), std::nullopt) << "a setting that was taken out is gone";
    EXPECT_EQ(settings.get("zone.dn", ""), "CN=z,DC=example");
}

TEST_F(Settings, AFileThatTheEnvironmentNamesMustExist) {
    setenv("ZANTHE_CONF", m_folder.file("none.conf").c_str(), 1);
    try {
        Props(true, false);
        FAIL() << "nothing was thrown";
    } catch (const PropertiesException& failure) {
        EXPECT_EQ(failure.what(), m_folder.file("none.conf") + ": No such file or directory");
        EXPECT_EQ(failure.code(), ENOENT);
    }
}

TEST_F(Settings, AFailedReadingIsTriedAgainAndLeavesTheOldValues) {
    use("domain.name = one.example\n");
    const Properties& settings = Props(true, false);
    use("= broken\n");
    EXPECT_THROW(Props(true, false), PropertiesException);
    EXPECT_THROW(Props(false, false), PropertiesException);
    EXPECT_EQ(settings.get("domain.name", ""), "one.example");
    use("domain.name = two.example\n");
    EXPECT_EQ(Props(false, false).get("domain.name", ""), "two.example");
}

TEST_F(Settings, TheStandardFileMayBeMissing) {
    if (std::filesystem::exists("/etc/zanthe/zanthe.conf")) GTEST_SKIP() << "this host has one";
    unsetenv("ZANTHE_CONF");
    EXPECT_TRUE(Props(true, false).empty());
    EXPECT_THROW(Props(false, true), PropertiesException) << "what may be missing was read already";
    EXPECT_NO_THROW(Props(false, false));
}

TEST_F(Settings, HaveDefaults) {
    use("log.level = 0\nagent.timeout =\n");
    Props(true, false);
    EXPECT_EQ(loadSetting(SETTING_LOG_LEVEL), "0");
    EXPECT_EQ(loadSetting(SETTING_LOG_SYSLOG_LEVEL), "4");
    EXPECT_EQ(loadSetting(SETTING_AGENT_SOCKET), "/run/zanthe/vexagent.sock");
    EXPECT_EQ(loadSetting(SETTING_AGENT_TIMEOUT), "") << "an empty setting is a set one";
    EXPECT_EQ(loadSetting(SETTING_LOG_LEVEL, Properties()), "2");
}

TEST_F(Settings, ServeManyThreads) {
    use("domain.name = one.example\n");
    Props(true, false);
    std::vector<std::thread> threads;
    std::atomic<int> wrong = 0;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            for (int n = 0; n < 100; ++n) {
                if (Props(i == 0, false).get("domain.name", "") != "one.example") ++wrong;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
}

std::string unknown(const std::string& text) {
    Properties settings;
    settings.parse(text, "z.conf");
    return unknownSetting(settings);
}

TEST(UnknownSetting, IsReportedWithItsPlace) {
    EXPECT_EQ(unknown(""), "");
    EXPECT_EQ(unknown("Domain.Name = x\nlog.level = 1\nlog.level.dirgate = 0\nlog.syslog.level.a.b = 3\n"),
              "");
    EXPECT_EQ(unknown("domain.name = x\ndomain.nmae = y\n"), "z.conf:2: unknown setting domain.nmae");
    EXPECT_EQ(unknown("log.level. = 1\n"), "z.conf:1: unknown setting log.level.");
    EXPECT_EQ(unknown("log.levels = 1\n"), "z.conf:1: unknown setting log.levels");
    EXPECT_EQ(unknown("log.level.* = 1\n"), "") << "a channel of that name, however odd";
}

TEST(KnownSettings, EachHasOneNameAndAMeaning) {
    std::set<std::string> names;
    for (const Setting& setting : knownSettings()) {
        EXPECT_TRUE(names.insert(setting.name).second) << setting.name;
        EXPECT_NE(std::string(setting.meaning), "") << setting.name;
    }
    EXPECT_TRUE(names.contains("agent.socket"));
    EXPECT_TRUE(names.contains("log.syslog.level.*"));
}

}  // namespace
}  // namespace vorn
