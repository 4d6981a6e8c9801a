// SPDX-License-Identifier: Apache-2.0
// The memory of log-ins.

#include "agent/ad/auth_cache.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "agent/directory/log_testing.h"
#include "vorn/temporary_folder_testing.h"

namespace vexagent {
namespace {

std::time_t memoryNow = 0;
std::time_t memoryClock() {
    return memoryNow;
}

class AuthCacheTest : public ::testing::Test {
  protected:
    AuthCacheTest() {
        memoryNow = 1'700'000'000;
        m_options.enabled = true;
        m_options.file = m_folder.file("logins");
        m_options.maxAge = std::chrono::hours(1);
        m_options.attempts = 3;
    }
    AuthCache open() const { return AuthCache(m_options, memoryClock); }
    std::string text() const {
        std::ostringstream content;
        content << std::ifstream(m_options.file).rdbuf();
        return content.str();
    }

    vorn::test::TemporaryFolder m_folder;
    AuthCacheOptions m_options;
};

enum class Answer { Right, Wrong, Unknown };

Answer ask(AuthCache& cache, const std::string& name, const std::string& password) {
    const std::optional<Verdict> verdict = cache.check(name, password);
    if (!verdict) return Answer::Unknown;
    EXPECT_EQ(verdict->code(), verdict->accepted() ? VEX_OK : VEX_WRONG_PASSWORD);
    return verdict->accepted() ? Answer::Right : Answer::Wrong;
}

TEST_F(AuthCacheTest, KnowsWhatItWasTold) {
    AuthCache cache(m_options, memoryClock);
    EXPECT_EQ(ask(cache, "ann@example.com", "secret"), Answer::Unknown);
    EXPECT_FALSE(cache.hasAnswers());
    cache.remember("ann@example.com", "", "secret");
    EXPECT_TRUE(cache.hasAnswers());
    EXPECT_EQ(ask(cache, "ANN@Example.com", "secret"), Answer::Right);
    EXPECT_EQ(ask(cache, "ann@example.com", "Secret"), Answer::Wrong);
    EXPECT_EQ(ask(cache, "ben@example.com", "secret"), Answer::Unknown);
    cache.forget("ann@example.com", "");
    EXPECT_EQ(ask(cache, "ann@example.com", "secret"), Answer::Unknown);
}

TEST_F(AuthCacheTest, SurvivesInAFileOfItsOwnWithoutThePassword) {
    const std::string name = "CN=Ann \\, B,OU=x y,DC=example\n1 0 hash bob";
    {
        AuthCache cache(m_options, memoryClock);
        cache.remember(name, "", "a password nobody has");
    }
    struct stat status {};
    ASSERT_EQ(::stat(m_options.file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777u, 0600u);
    EXPECT_EQ(text().find("password"), std::string::npos);
    EXPECT_NE(text().find(" $y$"), std::string::npos);
    AuthCache again(m_options, memoryClock);
    EXPECT_EQ(ask(again, name, "a password nobody has"), Answer::Right);
    EXPECT_EQ(ask(again, "bob", "x"), Answer::Unknown);
}

TEST_F(AuthCacheTest, ARecordAnswersUntilItIsTooOld) {
    AuthCache cache(m_options, memoryClock);
    cache.remember("ann", "", "secret");
    memoryNow += 3600;
    EXPECT_EQ(ask(cache, "ann", "secret"), Answer::Right);
    memoryNow += 1;
    EXPECT_EQ(ask(cache, "ann", "secret"), Answer::Unknown);
    EXPECT_FALSE(cache.hasAnswers());
    memoryNow -= 3602;  // a clock that was set back
    EXPECT_EQ(ask(cache, "ann", "secret"), Answer::Unknown);
}

TEST_F(AuthCacheTest, TooManyWrongOnesInARowEndIt) {
    {
        AuthCache cache(m_options, memoryClock);
        cache.remember("ann", "", "secret");
        EXPECT_EQ(ask(cache, "ann", "1"), Answer::Wrong);
        EXPECT_EQ(ask(cache, "ann", "2"), Answer::Wrong);
        EXPECT_EQ(ask(cache, "ann", "secret"), Answer::Right);  // counts anew
        EXPECT_EQ(ask(cache, "ann", "3"), Answer::Wrong);
        EXPECT_EQ(ask(cache, "ann", "4"), Answer::Wrong);
    }
    AuthCache again(m_options, memoryClock);  // a restart does not help
    EXPECT_EQ(ask(again, "ann", "5"), Answer::Wrong);
    EXPECT_EQ(ask(again, "ann", "secret"), Answer::Unknown);
    again.remember("ann", "", "secret");
    EXPECT_EQ(ask(again, "ann", "secret"), Answer::Right);
}

TEST_F(AuthCacheTest, WhatIsRefusedEndsTheRecordsOfAllItsNames) {
    const auto fill = [](AuthCache& cache) {
        cache.remember("ann@example.com", "guid-1", "secret");
        cache.remember("EXAMPLE\\ann", "guid-1", "secret");
        cache.remember("ben@example.com", "guid-2", "secret");
        cache.remember("cleo@example.com", "", "secret");
    };
    {
        AuthCache cache(m_options, memoryClock);
        fill(cache);
        cache.forget("CN=ann,DC=example,DC=com", "guid-1");  // by a name that was not remembered
        EXPECT_EQ(ask(cache, "ann@example.com", "secret"), Answer::Unknown);
        EXPECT_EQ(ask(cache, "EXAMPLE\\ann", "secret"), Answer::Unknown);
        fill(cache);
    }
    AuthCache again(m_options, memoryClock);
    again.forget("ann@example.com", "");  // of whom nobody knows now whose name it was
    EXPECT_EQ(ask(again, "EXAMPLE\\ann", "secret"), Answer::Unknown);
    EXPECT_EQ(ask(again, "ben@example.com", "secret"), Answer::Right);
    EXPECT_EQ(ask(again, "cleo@example.com", "secret"), Answer::Right);
    again.forget("nobody@example.com", "");
    EXPECT_EQ(ask(again, "cleo@example.com", "secret"), Answer::Right);
}

TEST_F(AuthCacheTest, RecordsWithoutAnAccountAreReadStill) {
    {
        AuthCache cache(m_options, memoryClock);
        cache.remember("ann", "", "secret");
    }
    EXPECT_EQ(text().find(" ann\n"), text().size() - 5);
    AuthCache again(m_options, memoryClock);
    EXPECT_EQ(ask(again, "ann", "secret"), Answer::Right);
}

TEST_F(AuthCacheTest, APasswordThatCannotBeKeptTakesTheOldOnesPlace) {
    AuthCache cache(m_options, memoryClock);
    cache.remember("ann", "guid", "secret");
    cache.remember("ann", "guid", std::string("other\0", 6));
    EXPECT_EQ(ask(cache, "ann", "secret"), Answer::Unknown);
}

TEST_F(AuthCacheTest, APasswordsStartDoesNotPassForIt) {
    AuthCache cache(m_options, memoryClock);
    cache.remember("ann", "", "secret");
    EXPECT_EQ(ask(cache, "ann", std::string("secret\0more", 11)), Answer::Wrong);
    cache.remember("ben", "", std::string("secret\0more", 11));
    EXPECT_EQ(ask(cache, "ben", "secret"), Answer::Unknown);
}

TEST_F(AuthCacheTest, AFileThatOthersCanReadIsRefused) {
    m_folder.write("logins", "");
    ASSERT_EQ(::chmod(m_options.file.c_str(), 0640), 0);
    try {
        open();
        ADD_FAILURE() << "accepted";
    } catch (const AuthCacheError& error) {
        EXPECT_EQ(error.what(), m_options.file + ": is not a file of the agent's own with mode 0600");
    }
}

// What a stored hash is good for does not matter here.
std::string line(std::time_t time, int failures, const std::string& name) {
    return std::to_string(time) + " " + std::to_string(failures) + " hash " + name + "\n";
}

TEST_F(AuthCacheTest, TheOldestRecordMakesRoomForAnother) {
    std::string full;
    for (std::size_t i = 0; i < AuthCache::kMostRecords; ++i)
        full += line(memoryNow - 100 - (i == 7 ? 1 : 0), 0, "name" + std::to_string(i));
    m_folder.write("logins", full);
    ASSERT_EQ(::chmod(m_options.file.c_str(), 0600), 0);
    AuthCache cache(m_options, memoryClock);
    cache.remember("ann", "", "secret");
    const std::string after = text();
    EXPECT_EQ(std::count(after.begin(), after.end(), '\n'), AuthCache::kMostRecords);
    EXPECT_EQ(after.find(" name7\n"), std::string::npos);
    EXPECT_NE(after.find(" ann\n"), std::string::npos);
    EXPECT_EQ(ask(cache, "ann", "secret"), Answer::Right);
}

TEST_F(AuthCacheTest, OneMoreThanAlmostAllNeedsNoRoom) {
    std::string almost;
    for (std::size_t i = 1; i < AuthCache::kMostRecords; ++i)
        almost += line(memoryNow, 0, "n" + std::to_string(i));
    m_folder.write("logins", almost);
    ASSERT_EQ(::chmod(m_options.file.c_str(), 0600), 0);
    AuthCache cache(m_options, memoryClock);
    cache.remember("ann", "", "secret");
    const std::string after = text();
    EXPECT_EQ(std::count(after.begin(), after.end(), '\n'), AuthCache::kMostRecords);
}

TEST_F(AuthCacheTest, LinesThatAreNoRecordsAreLeftOut) {
    m_folder.write("logins", "\nnonsense\n1 2\n" + line(memoryNow, 0, "ann") + "x 0 hash ben\n" +
                                 line(memoryNow - 3601, 0, "old") + "1 0 hash\n");
    ASSERT_EQ(::chmod(m_options.file.c_str(), 0600), 0);
    AuthCache cache(m_options, memoryClock);
    EXPECT_TRUE(cache.hasAnswers());
    EXPECT_EQ(ask(cache, "ann", "secret"), Answer::Wrong);
    EXPECT_EQ(ask(cache, "ben", "secret"), Answer::Unknown);
    EXPECT_EQ(ask(cache, "old", "secret"), Answer::Unknown);
    EXPECT_EQ(text(), line(memoryNow, 1, "ann") + line(memoryNow - 3601, 0, "old"));
}

TEST_F(AuthCacheTest, AFileOfAnyGreaterSizeIsNotRead) {
    m_folder.write("logins", "");
    ASSERT_EQ(::chmod(m_options.file.c_str(), 0600), 0);
    constexpr off_t kMost = off_t{16} << 20;
    ASSERT_EQ(::truncate(m_options.file.c_str(), kMost), 0);
    EXPECT_FALSE(open().hasAnswers());
    ASSERT_EQ(::truncate(m_options.file.c_str(), kMost + 1), 0);
    EXPECT_THROW(open(), AuthCacheError);
}

TEST_F(AuthCacheTest, WhatIsForgottenOrCountedIsSoAfterARestart) {
    {
        AuthCache cache(m_options, memoryClock);
        cache.remember("ann", "guid", "secret");
        cache.remember("ben", "", "secret");
        cache.forget("ann", "guid");
        EXPECT_EQ(ask(cache, "ben", "wrong"), Answer::Wrong);
        EXPECT_EQ(ask(cache, "ben", "wrong"), Answer::Wrong);
        EXPECT_EQ(ask(cache, "ben", "secret"), Answer::Right);
    }
    EXPECT_EQ(text().find("ann"), std::string::npos);
    AuthCache again(m_options, memoryClock);
    EXPECT_EQ(ask(again, "ben", "wrong"), Answer::Wrong);
    EXPECT_EQ(ask(again, "ben", "wrong"), Answer::Wrong);
    EXPECT_EQ(ask(again, "ben", "secret"), Answer::Right);
}

TEST_F(AuthCacheTest, TheFileIsWrittenOnlyWhenSomethingIsForgotten) {
    AuthCache cache(m_options, memoryClock);
    cache.remember("ann", "", "secret");
    ASSERT_EQ(::unlink(m_options.file.c_str()), 0);
    cache.forget("nobody", "guid");
    EXPECT_NE(::access(m_options.file.c_str(), F_OK), 0);
    cache.forget("ann", "");
    EXPECT_EQ(::access(m_options.file.c_str(), F_OK), 0);
}

TEST_F(AuthCacheTest, WhatStandsInTheWayOfANewFileIsNotWrittenTo) {
    m_folder.write("elsewhere", "mine");
    ASSERT_EQ(::symlink(m_folder.file("elsewhere").c_str(), (m_options.file + ".new").c_str()), 0);
    AuthCache cache(m_options, memoryClock);
    cache.remember("ann", "", "secret");
    EXPECT_NE(text().find(" ann\n"), std::string::npos);
    EXPECT_NE(::access((m_options.file + ".new").c_str(), F_OK), 0);
    std::ostringstream other;
    other << std::ifstream(m_folder.file("elsewhere")).rdbuf();
    EXPECT_EQ(other.str(), "mine");
}

TEST_F(AuthCacheTest, WhereNothingCanBeWrittenItGoesOnInMemory) {
    m_options.file = m_folder.file("no such folder") + "/logins";
    AuthCache cache(m_options, memoryClock);
    const test::CapturedLog log;
    cache.remember("ann", "", "secret");
    EXPECT_NE(log.text().find(m_options.file + ": No such file or directory"), std::string::npos)
        << log.text();
    EXPECT_EQ(ask(cache, "ann", "secret"), Answer::Right);
}

TEST_F(AuthCacheTest, WhereItCanBeWrittenNobodyComplains) {
    AuthCache cache(m_options, memoryClock);
    const test::CapturedLog log;
    cache.remember("ann", "", "secret");
    EXPECT_EQ(log.text(), "");
}

TEST_F(AuthCacheTest, NamesStandInTheFileInAWayThatIsReadBack) {
    AuthCache cache(m_options, memoryClock);
    cache.remember(" a  b\\20c", "g 1", "secret");
    EXPECT_NE(text().find(" \\20a\\20\\20b\\5c20c g\\201\n"), std::string::npos) << text();
    AuthCache again(m_options, memoryClock);
    EXPECT_EQ(ask(again, " A  B\\20C", "secret"), Answer::Right);
    again.forget("", "g 1");
    EXPECT_EQ(ask(again, " a  b\\20c", "secret"), Answer::Unknown);
}

}  // namespace
}  // namespace vexagent
