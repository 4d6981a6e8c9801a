// SPDX-License-Identifier: Apache-2.0
#include "vorn/logger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdlib>
#include <mutex>
#include <new>
#include <sstream>
#include <thread>
#include <vector>

#include "vorn/settings.h"
#include "vorn/temporary_folder_testing.h"

namespace {

std::mutex syslogLock;
std::vector<std::pair<int, std::string>> syslogRecords;  // guarded by syslogLock

}  // namespace

// Stands in for the C library's, so that the tests see what would be sent.
extern "C" void syslog(int priority, const char* format, ...) {
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    const std::lock_guard guard(syslogLock);
    syslogRecords.emplace_back(priority, text);
}

namespace vorn {
namespace {

using test::TemporaryFolder;
using testing::HasSubstr;
using testing::MatchesRegex;

std::shared_ptr<Logger> logger(const std::string& channel, int file, int syslogLevel,
                               std::shared_ptr<Logger> parent = nullptr) {
    return std::make_shared<Logger>(channel, file, syslogLevel, std::move(parent));
}

TEST(LoggerThresholds, OwnOnesStand) {
    const auto parent = logger("a", 0, 1);
    const auto child = logger("a.b", 3, 4, parent);
    EXPECT_EQ(child->fileThreshold(), 3);
    EXPECT_EQ(child->syslogThreshold(), 4);
    EXPECT_EQ(child->channel(), "a.b");
}

TEST(LoggerThresholds, UnsetOnesComeFromTheNearestAncestorThatHasOne) {
    const auto root = logger("", 3, 2);
    const auto middle = logger("a", -1, 1, root);
    const auto leaf = logger("a.b", -1, -1, middle);
    EXPECT_EQ(leaf->fileThreshold(), 3);
    EXPECT_EQ(leaf->syslogThreshold(), 1);
    EXPECT_EQ(middle->fileThreshold(), 3);
}

TEST(LoggerThresholds, NobodySetsNothingIsAdmitted) {
    const auto orphan = logger("a", -1, -1);
    EXPECT_EQ(orphan->fileThreshold(), Logger::kNothing);
    EXPECT_FALSE(orphan->admits(Logger::kError));
}

TEST(LoggerThresholds, EitherPlaceAdmits) {
    EXPECT_TRUE(logger("a", 1, 4)->admits(1));
    EXPECT_TRUE(logger("a", 4, 1)->admits(1));
    EXPECT_FALSE(logger("a", 2, 2)->admits(1));
    EXPECT_TRUE(logger("a", 4, 3)->admits(3));
    EXPECT_FALSE(logger("a", 4, 4)->admits(3));
}

class LoggerTest : public testing::Test {
  protected:
    LoggerTest() { takeSyslog(); }
    ~LoggerTest() override { Logger::ReconfigureLevels(Properties()); }

    void configure(const std::string& text) {
        Properties settings;
        settings.parse(text, "z.conf");
        Logger::ReconfigureLevels(settings);
    }
    void configureWithFile(const std::string& text) { configure("log.file = " + m_file + "\n" + text); }

    std::string logged() const { return TemporaryFolder::read(m_file); }
    int records() const {
        const std::string text = logged();
        return static_cast<int>(std::count(text.begin(), text.end(), '\n'));
    }
    static std::vector<std::pair<int, std::string>> takeSyslog() {
        const std::lock_guard guard(syslogLock);
        return std::exchange(syslogRecords, {});
    }

    const TemporaryFolder m_folder;
    const std::string m_file = m_folder.file("log");
};

void say(const char* channel, int level, const char* text) {
    Logger::GetThreadPrivateLogger(channel)->log(level, "search", 92, "JPrintf", "%s", text);
}

TEST_F(LoggerTest, ARecordIsOneLineOfTimeLevelChannelIdsSourceAndText) {
    configureWithFile("log.level = 0\n");
    Logger::GetThreadPrivateLogger("dirgate")->log(Logger::kError, "search", 105, "JError",
                                                   "dirgate ERROR: %s %d", "bad", 7);
    const std::string ids = std::to_string(getpid()) + " " + std::to_string(gettid());
    EXPECT_THAT(logged(), MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} "
                                       "error dirgate " +
                                       ids + " search:105 JError dirgate ERROR: bad 7\n"));
}

TEST_F(LoggerTest, EachLevelHasItsName) {
    configureWithFile("log.level = 0\n");
    for (int level = Logger::kTrace; level <= Logger::kError; ++level) say("x", level, "text");
    std::istringstream lines(logged());
    for (const char* name : {"trace", "info", "warning", "error"}) {
        std::string line;
        std::getline(lines, line);
        EXPECT_THAT(line, HasSubstr(" " + std::string(name) + " x "));
    }
}

TEST_F(LoggerTest, WhatIsPutIntoARecordWritesNoOther) {
    configureWithFile("log.level = 0\nlog.syslog.level = 0\n");
    say("vexagent", Logger::kWarning, "cn=a\n2026-11-22 error vexagent forged\xff");
    EXPECT_EQ(records(), 1);
    EXPECT_NE(logged().find("cn=a\\0A2026-11-22 error vexagent forged\\FF\n"), std::string::npos);
    const auto syslog = takeSyslog();
    ASSERT_EQ(syslog.size(), 1U);
    EXPECT_EQ(syslog[0].second.find('\n'), syslog[0].second.size() - 1);
}

TEST_F(LoggerTest, ATextThatIsMadeAlreadyStandsAsItIs) {
    configureWithFile("log.level = 0\n");
    const LogSource source = {"search", 92, "JPrintf"};
    Logger::GetThreadPrivateLogger("dirgate")->write(Logger::kInfo, source, "a %s\nb");
    EXPECT_NE(logged().find("JPrintf a %s\nb\n"), std::string::npos);
}

TEST_F(LoggerTest, NothingIsCut) {
    configureWithFile("log.level = 0\n");
    const std::string text(5000, 'x');
    say("dirgate", 1, text.c_str());
    EXPECT_NE(logged().find(" " + text + "\n"), std::string::npos);
    say("dirgate", 1, "");
    EXPECT_TRUE(logged().ends_with("JPrintf \n"));
}

TEST_F(LoggerTest, ThresholdsDecideForEachPlaceApart) {
    configureWithFile("log.level = 3\nlog.syslog.level = 1\n");
    say("dirgate", Logger::kTrace, "none");
    say("dirgate", Logger::kInfo, "syslog only");
    EXPECT_EQ(records(), 0);
    say("dirgate", Logger::kError, "both");
    EXPECT_EQ(records(), 1);
    const std::vector<std::pair<int, std::string>> expected = {
        {LOG_INFO, "dirgate search:92 JPrintf syslog only\n"}, {LOG_ERR, "dirgate search:92 JPrintf both\n"}};
    EXPECT_EQ(takeSyslog(), expected);
}

TEST_F(LoggerTest, SyslogPrioritiesFollowTheLevels) {
    configure("log.syslog.level = 0\n");
    for (int level = Logger::kTrace; level <= Logger::kError; ++level) say("x", level, "text");
    std::vector<int> priorities;
    for (const auto& record : takeSyslog()) priorities.push_back(record.first);
    EXPECT_EQ(priorities, (std::vector<int>{LOG_DEBUG, LOG_INFO, LOG_WARNING, LOG_ERR}));
}

TEST_F(LoggerTest, WithoutSettingsWarningsGoToTheFileAndNothingToSyslog) {
    configure("");
    const auto root = Logger::GetThreadPrivateLogger("");
    EXPECT_EQ(root->channel(), "");
    EXPECT_EQ(root->fileThreshold(), Logger::kWarning);
    EXPECT_EQ(root->syslogThreshold(), Logger::kNothing);
    say("dirgate", Logger::kError, "there is no log file");
}

TEST_F(LoggerTest, AChannelTakesItsLevelFromTheNearestAncestorInTheSettings) {
    configure("log.level = 3\nlog.level.A = 0\nlog.syslog.level.a.b = 1\nlog.levels = 1\nlog.level. = 1\n");
    const struct {
        const char* channel;
        int file;
        int syslog;
    } cases[] = {{"", 3, 4}, {"a", 0, 4}, {"a.b", 0, 1}, {"a.b.c", 0, 1}, {"ab", 3, 4}, {"b.a", 3, 4}};
    for (const auto& [channel, file, syslogLevel] : cases) {
        EXPECT_EQ(Logger::GetThreadPrivateLogger(channel)->fileThreshold(), file) << channel;
        EXPECT_EQ(Logger::GetThreadPrivateLogger(channel)->syslogThreshold(), syslogLevel) << channel;
    }
}

TEST_F(LoggerTest, WhatAnAncestorSetsIsStoredSoThatTheWalkIsDoneOnce) {
    configure("log.level.a = 1\nlog.syslog.level.a = 0\n");
    const auto leaf = logger("a.b.c", -1, -1, logger("a.b", -1, -1, Logger::GetThreadPrivateLogger("a")));
    EXPECT_EQ(leaf->fileThreshold(), 1);
    EXPECT_EQ(leaf->syslogThreshold(), 0);
    configure("log.level.a = 3\nlog.syslog.level.a = 3\n");
    EXPECT_EQ(leaf->fileThreshold(), 1);
    EXPECT_EQ(leaf->syslogThreshold(), 0);
}

TEST_F(LoggerTest, AValueThatIsNoLevelIsReportedAndPassedOver) {
    testing::internal::CaptureStderr();
    configure("log.level = high\nlog.level.a = 5\nlog.syslog.level.a = -1\nlog.level.b =\nlog.level.c = 1\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "z.conf:1: log.level: not a level from 0 to 4: high\n"
              "z.conf:2: log.level.a: not a level from 0 to 4: 5\n"
              "z.conf:4: log.level.b: not a level from 0 to 4: \n"
              "z.conf:3: log.syslog.level.a: not a level from 0 to 4: -1\n");
    EXPECT_EQ(Logger::GetThreadPrivateLogger("a")->fileThreshold(), 2);
    EXPECT_EQ(Logger::GetThreadPrivateLogger("c")->fileThreshold(), 1);
}

TEST_F(LoggerTest, AThreadHasItsOwnLoggers) {
    const auto own = Logger::GetThreadPrivateLogger("dirgate");
    EXPECT_EQ(Logger::GetThreadPrivateLogger("dirgate"), own);
    std::shared_ptr<Logger> other;
    std::thread([&] { other = Logger::GetThreadPrivateLogger("dirgate"); }).join();
    EXPECT_NE(other, nullptr);
    EXPECT_NE(other, own);
}

TEST_F(LoggerTest, HeldLoggersFollowNewLevels) {
    configure("log.level.a = 1\n");
    const auto held = Logger::GetThreadPrivateLogger("a.b");
    EXPECT_EQ(held->fileThreshold(), 1);
    configure("log.level.a = 0\nlog.syslog.level = 3\n");
    EXPECT_EQ(held->fileThreshold(), 0);
    EXPECT_EQ(held->syslogThreshold(), 3);
    configure("");
    EXPECT_EQ(held->fileThreshold(), 2) << "a level that was taken out is gone";
    EXPECT_EQ(held->syslogThreshold(), 4);
}

TEST_F(LoggerTest, ANewLogFileTakesOver) {
    configureWithFile("log.level = 0\n");
    say("x", 1, "first");
    const std::string next = m_folder.file("next");
    configure("log.level = 0\nlog.file = " + next + "\n");
    say("x", 1, "second");
    EXPECT_EQ(records(), 1);
    EXPECT_NE(TemporaryFolder::read(next).find(" second\n"), std::string::npos);
    configureWithFile("log.level = 0\n");
    say("x", 1, "third");
    EXPECT_EQ(records(), 2) << "records are appended";
}

TEST_F(LoggerTest, ARenamedLogFileIsLetGoOf) {
    configureWithFile("log.level = 0\n");
    say("x", 1, "first");
    std::filesystem::rename(m_file, m_file + ".1");
    configureWithFile("log.level = 0\n");
    say("x", 1, "second");
    EXPECT_EQ(records(), 1);
}

TEST_F(LoggerTest, TheLogFileIsMadeByTheFirstRecordAndNotForEverybodyToRead) {
    configureWithFile("log.level = 2\n");
    say("x", 1, "too little");
    EXPECT_FALSE(std::filesystem::exists(m_file));
    say("x", 2, "enough");
    const auto permissions = std::filesystem::status(m_file).permissions();
    EXPECT_EQ(permissions & std::filesystem::perms::others_all, std::filesystem::perms::none);
}

TEST_F(LoggerTest, ALogFileThatCannotBeOpenedIsReportedOnce) {
    const std::string file = m_folder.file("missing/log");
    const std::string settings = "log.level = 0\nlog.syslog.level = 0\nlog.file = " + file + "\n";
    configure(settings);
    testing::internal::CaptureStderr();
    say("x", 1, "one");
    say("x", 1, "two");
    configure(settings);
    say("x", 1, "three");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "cannot open the log file " + file + ": No such file or directory\n");
    EXPECT_EQ(takeSyslog().size(), 3u) << "logging goes on";
    EXPECT_FALSE(std::filesystem::exists(m_folder.file("missing")));
}

TEST_F(LoggerTest, LogLeavesErrnoAlone) {
    configure("log.level = 0\nlog.file = " + m_folder.file("missing/log") + "\n");
    testing::internal::CaptureStderr();
    errno = EDOM;
    say("x", 1, "text");
    EXPECT_EQ(errno, EDOM);
    testing::internal::GetCapturedStderr();
}

TEST_F(LoggerTest, AChildProcessLogsUnderItsOwnIds) {
    configureWithFile("log.level = 0\n");
    say("x", 1, "parent");
    const pid_t child = fork();
    if (child == 0) {
        say("x", 1, "child");
        _exit(0);
    }
    waitpid(child, nullptr, 0);
    const std::string id = std::to_string(child);
    EXPECT_NE(logged().find(" x " + id + " " + id + " search:92 JPrintf child\n"), std::string::npos)
        << logged();
}

TEST_F(LoggerTest, ManyThreadsLogWhileLevelsChange) {
    configureWithFile("log.level = 1\n");
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            for (int n = 0; n < 200; ++n) say("dirgate", 1, "line");
        });
    }
    for (int n = 0; n < 20; ++n)
        configureWithFile(n % 2 ? "log.level = 1\n" : "log.level.x = 3\nlog.level = 0\n");
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(records(), 800);
}

// A look-up in a thread that logs for the last time, when its table is gone.
struct LogsAtTheEnd {
    ~LogsAtTheEnd() { say("late", 3, "last words"); }
};

TEST_F(LoggerTest, AThreadMayLogWhileItIsTornDown) {
    configureWithFile("log.level = 0\n");
    std::thread([] {
        thread_local LogsAtTheEnd last;
        (void)&last;
        say("late", 3, "first words");  // makes the table after, so that it goes before
    }).join();
    EXPECT_NE(logged().find(" last words\n"), std::string::npos) << logged();
}

}  // namespace
}  // namespace vorn
