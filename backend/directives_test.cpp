// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <new>
#include <string>
#include <vector>

#include "backend/backend.h"
#include "backend/base/log.h"
#include "backend/loaded_overlays_testing.h"
#include "tests/standin/captured.h"
#include "vorn/logger.h"
#include "vorn/settings.h"
#include "vorn/temporary_folder_testing.h"

#include "tests/standin/slapd_standin.h"

// Memory that is asked for without exceptions runs out when a test says so.
static bool memoryIsExhausted = false;
void* operator new(std::size_t size, const std::nothrow_t& /*unused*/) noexcept {
    return memoryIsExhausted ? nullptr : ::operator new(size);
}

namespace {

using testing::HasSubstr;

struct Settings {
    bool cacheEnabled = gCacheEnabled, fetchByDnUid = gFetchByDnUID, netgroups = gNetgroupUseRfc2307;
    bool preferCache = gPreferCacheAuth, pagedCritical = gPagedCritical, reportErrors = gSearchReportErrors;
    bool standard = gLdapStandard;
    std::int64_t maxLists = gCacheMaxLists, maxObjects = gCacheMaxObjects, ttl = gCacheTTL;
    std::int64_t negTtl = gCacheNegTTL, credExpire = gCredExpire, credMax = gCredMax,
                 logInterval = gLogInterval;
    std::uint64_t maxBytes = gCacheMaxBytes;
    float loadFactor = gCacheHashLoadFactor;
    vorn::Properties* map = gTranslationMap;

    void restore() const {
        gCacheEnabled = cacheEnabled, gFetchByDnUID = fetchByDnUid, gNetgroupUseRfc2307 = netgroups;
        gPreferCacheAuth = preferCache, gPagedCritical = pagedCritical, gSearchReportErrors = reportErrors;
        gLdapStandard = standard;
        gCacheMaxLists = maxLists, gCacheMaxObjects = maxObjects, gCacheTTL = ttl;
        gCacheNegTTL = negTtl, gCredExpire = credExpire, gCredMax = credMax, gLogInterval = logInterval;
        gCacheMaxBytes = maxBytes;
        gCacheHashLoadFactor = loadFactor;
        gTranslationMap = map;
    }
};

class DirectivesTest : public testing::Test {
  protected:
    DirectivesTest() { standin::resetSlapd(); }
    ~DirectivesTest() override { m_settings.restore(); }

    int configure(std::vector<std::string> words) {
        std::vector<char*> argv;
        for (std::string& word : words) argv.push_back(word.data());
        argv.push_back(nullptr);
        return vex_back_config(&m_info, "slapd.conf", 7, static_cast<int>(words.size()), argv.data());
    }
    int configureDatabase(std::vector<std::string> words) {
        std::vector<char*> argv;
        for (std::string& word : words) argv.push_back(word.data());
        argv.push_back(nullptr);
        return vex_back_db_config(&m_database, "slapd.conf", 7, static_cast<int>(words.size()), argv.data());
    }
    // What a directive says on standard error.
    std::string complaint(std::vector<std::string> words, int expected = 1) {
        standin::CapturedStderr captured;
        EXPECT_EQ(configure(std::move(words)), expected);
        return captured.text();
    }

    BackendInfo m_info{};
    BackendDB m_database = [this] {
        BackendDB database{};
        database.bd_info = &m_info;
        return database;
    }();
    const Settings m_settings;
};

TEST(SettingsTest, HaveTheirDefaultsBeforeAnyDirective) {
    EXPECT_FALSE(gCacheEnabled);
    EXPECT_EQ(gCacheMaxLists, 100);
    EXPECT_EQ(gCacheMaxObjects, 3000);
    EXPECT_EQ(gCacheMaxBytes, std::uint64_t{256} << 20);
    EXPECT_EQ(gCacheTTL, 3600);
    EXPECT_EQ(gCacheNegTTL, 300);
    EXPECT_EQ(gCredExpire, 300);
    EXPECT_EQ(gCredMax, 10000);
    EXPECT_EQ(gLogInterval, 0);
    EXPECT_TRUE(gPreferCacheAuth);
    EXPECT_FALSE(gFetchByDnUID);
    EXPECT_FALSE(gNetgroupUseRfc2307);
    EXPECT_FALSE(gPagedCritical);
    EXPECT_FALSE(gSearchReportErrors);
    EXPECT_FALSE(gLdapStandard);
    EXPECT_EQ(gTranslationMap, nullptr);
    EXPECT_EQ(gSupportedObjectAttrList.load(), nullptr);

    std::uint32_t bits = 0;
    static_assert(sizeof bits == sizeof gCacheHashLoadFactor);
    std::memcpy(&bits, &gCacheHashLoadFactor, sizeof bits);
    EXPECT_EQ(bits, 0x3FA66666U);
}

struct BooleanDirective {
    const char* name;
    bool* setting;
};
void PrintTo(const BooleanDirective& one, std::ostream* out) {
    *out << one.name;
}
class BooleanDirectiveTest : public DirectivesTest, public testing::WithParamInterface<BooleanDirective> {};

TEST_P(BooleanDirectiveTest, TakesTrueAndFalseInAnyCaseAndNothingElse) {
    const auto [name, setting] = GetParam();
    EXPECT_EQ(configure({name, "TRUE"}), 0);
    EXPECT_TRUE(*setting);
    EXPECT_EQ(configure({name, "False"}), 0);
    EXPECT_FALSE(*setting);
    EXPECT_EQ(configure({name, "true"}), 0);
    EXPECT_EQ(complaint({name, "yes"}),
              std::string("dirgate ERROR: slapd.conf: line 7: ") + name + "'s value 'yes' is invalid.\n");
    EXPECT_TRUE(*setting) << "a refused value leaves the setting unchanged";
}

INSTANTIATE_TEST_SUITE_P(
    All, BooleanDirectiveTest,
    testing::Values(BooleanDirective{"vex-auth-prefer-cache", &gPreferCacheAuth},
                    BooleanDirective{"dirgate.vextranslate.fetchbydnuid", &gFetchByDnUID},
                    BooleanDirective{"dirgate.cache.enabled", &gCacheEnabled},
                    BooleanDirective{"dirgate.netgroup.use.rfc2307nisnetgroup", &gNetgroupUseRfc2307},
                    BooleanDirective{"dirgate.paged.critical", &gPagedCritical},
                    BooleanDirective{"dirgate.search.report.errors", &gSearchReportErrors},
                    BooleanDirective{"dirgate.ldap.standard", &gLdapStandard}));

struct IntegerDirective {
    const char* name;
    std::int64_t* setting;
    bool takesZero;
};
void PrintTo(const IntegerDirective& one, std::ostream* out) {
    *out << one.name;
}
class IntegerDirectiveTest : public DirectivesTest, public testing::WithParamInterface<IntegerDirective> {};

TEST_P(IntegerDirectiveTest, TakesThirtyTwoBitsOfWhatTheWordBeginsWith) {
    const auto [name, setting, takesZero] = GetParam();
    const struct {
        const char* word;
        bool accepted;
        std::int64_t value;
    } cases[] = {
        {"60", true, 60},
        {"1", true, 1},
        {"60s", true, 60},          // what follows the digits does not count
        {"010", true, 10},          // decimal, whatever it begins with
        {"0x10", takesZero, 0},     //
        {"4294967396", true, 100},  // 2^32 + 100 wraps to 100
        {"2147483648", false, 0},   // 2^31 wraps negative
        {"2147483647", true, 2147483647},
        {"99999999999999999999", false, 0},
        {"-1", false, 0},
        {"0", takesZero, 0},
        {"4294967296", takesZero, 0},  // 2^32 wraps to 0
        {"many", takesZero, 0},        // no leading digits read as 0
    };
    for (const auto& one : cases) {
        *setting = 77;
        if (one.accepted) {
            EXPECT_EQ(configure({name, one.word}), 0) << one.word;
            EXPECT_EQ(*setting, one.value) << one.word;
        } else {
            EXPECT_EQ(complaint({name, one.word}), std::string("dirgate ERROR: slapd.conf: line 7: ") + name +
                                                       "'s value '" + one.word + "' is invalid.\n");
            EXPECT_EQ(*setting, 77) << one.word;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, IntegerDirectiveTest,
    testing::Values(IntegerDirective{"dirgate.cache.max.lists", &gCacheMaxLists, false},
                    IntegerDirective{"dirgate.cache.max.objects", &gCacheMaxObjects, false},
                    IntegerDirective{"dirgate.cache.ttl", &gCacheTTL, false},
                    IntegerDirective{"dirgate.cache.negative.ttl", &gCacheNegTTL, false},
                    IntegerDirective{"dirgate.cache.credential.expires", &gCredExpire, false},
                    IntegerDirective{"dirgate.cache.credential.max", &gCredMax, false},
                    IntegerDirective{"dirgate.performance.log.interval", &gLogInterval, true}));

TEST_F(DirectivesTest, TheLoadFactorIsAPositiveSinglePrecisionNumber) {
    EXPECT_EQ(configure({"dirgate.cache.hash.loadfactor", "0.75"}), 0);
    EXPECT_EQ(gCacheHashLoadFactor, 0.75F);
    EXPECT_EQ(configure({"dirgate.cache.hash.loadfactor", "0.5x"}), 0);
    EXPECT_EQ(gCacheHashLoadFactor, 0.5F) << "what follows the number does not count";
    EXPECT_EQ(configure({"dirgate.cache.hash.loadfactor", "3.4028234663852886e38"}), 0);
    EXPECT_EQ(gCacheHashLoadFactor, std::numeric_limits<float>::max());
    EXPECT_EQ(configure({"dirgate.cache.hash.loadfactor", "1e39"}), 0);
    EXPECT_EQ(gCacheHashLoadFactor, std::numeric_limits<float>::infinity());
    EXPECT_EQ(configure({"dirgate.cache.hash.loadfactor", "0.75"}), 0);
    for (const char* word : {"1e-50", "0", "-1", "much", "nan"}) {
        EXPECT_EQ(complaint({"dirgate.cache.hash.loadfactor", word}),
                  std::string("dirgate ERROR: slapd.conf: line 7: dirgate.cache.hash.loadfactor's value '") +
                      word + "' is invalid.\n");
        EXPECT_EQ(gCacheHashLoadFactor, 0.75F);
    }
}

TEST_F(DirectivesTest, TheMostBytesAreANumberWithAUnitAndNothingElse) {
    constexpr std::uint64_t kOne = 1;
    const struct {
        const char* word;
        std::uint64_t bytes;
    } good[] = {
        {"0", 0},
        {"1", 1},
        {"010", 10},
        {"4294967296", kOne << 32},
        {"18446744073709551615", ~std::uint64_t{0}},
        {"0K", 0},
        {"3K", 3 << 10},
        {"3k", 3 << 10},
        {"256M", 256 << 20},
        {"5m", 5 << 20},
        {"8G", kOne << 33},
        {"17179869183g", (~std::uint64_t{0} >> 30) << 30},
    };
    for (const auto& one : good) {
        gCacheMaxBytes = 77;
        EXPECT_EQ(configure({"dirgate.cache.max.bytes", one.word}), 0) << one.word;
        EXPECT_EQ(gCacheMaxBytes, one.bytes) << one.word;
    }
    gCacheMaxBytes = 77;
    for (const char* word : {"", "K", "-1", "+1", " 1", "1 ", "1.5G", "1T", "1KB", "1MM", "0x10", "many",
                             "1e6", "18446744073709551616", "17179869184G", "36893488147419103232"}) {
        EXPECT_EQ(complaint({"dirgate.cache.max.bytes", word}),
                  std::string("dirgate ERROR: slapd.conf: line 7: dirgate.cache.max.bytes's value '") + word +
                      "' is invalid.\n");
        EXPECT_EQ(gCacheMaxBytes, 77U) << word;
    }
}

TEST_F(DirectivesTest, AWrongNumberOfWordsHasNoEffectAndNoMessage) {
    EXPECT_EQ(complaint({"dirgate.cache.ttl"}, 0), "");
    EXPECT_EQ(complaint({"dirgate.cache.ttl", "60", "70"}, 0), "");
    EXPECT_EQ(complaint({"dirgate.cache.enabled", "nonsense", "more"}, 0), "");
    EXPECT_EQ(gCacheTTL, 3600);
}

TEST_F(DirectivesTest, AnUnknownDirectiveIsAcceptedWithoutAMessage) {
    EXPECT_EQ(complaint({"dirgate.cache.enabeld", "true"}, 0), "");
    EXPECT_EQ(complaint({"suffixes"}, 0), "");
}

TEST_F(DirectivesTest, ALaterLineOverridesAnEarlierOneAndARefusedOneDoesNot) {
    EXPECT_EQ(configure({"dirgate.cache.negative.ttl", "5"}), 0);
    EXPECT_EQ(configure({"dirgate.cache.negative.ttl", "7"}), 0);
    complaint({"dirgate.cache.negative.ttl", "-7"});
    EXPECT_EQ(gCacheNegTTL, 7);
}

TEST_F(DirectivesTest, NamesIgnoreCase) {
    EXPECT_EQ(configure({"DirGate.Cache.TTL", "5"}), 0);
    EXPECT_EQ(gCacheTTL, 5);
}

// slapd's debug level, and that of the LDAP library.
class DebugLevels {
  public:
    DebugLevels(int server, int library) {
        slap_debug = server;
        ldap_set_option(nullptr, LDAP_OPT_DEBUG_LEVEL, &library);
    }
    ~DebugLevels() {
        slap_debug = 0;
        ldap_set_option(nullptr, LDAP_OPT_DEBUG_LEVEL, &slap_debug);
    }
    DebugLevels(const DebugLevels&) = delete;
    DebugLevels& operator=(const DebugLevels&) = delete;
};

TEST_F(DirectivesTest, ComplaintsGoToSlapdsDebugLogWhenItIsShown) {
    const DebugLevels levels(-1, -1);
    EXPECT_EQ(complaint({"dirgate.cache.ttl", "0"}),
              "slapd.conf: line 7: dirgate.cache.ttl's value '0' is invalid.\n");
    EXPECT_EQ(complaint({"DirGate.Cache.Enabled", "yes"}),
              "slapd.conf: line 7: dirgate.cache.enabled's value 'yes' is invalid.\n")
        << "under its own name, however the line spells it";
    EXPECT_EQ(complaint({"VEXtranslation"}),
              "slapd.conf: line 7: missing filenamein vextranslation line: VEXtranslation.\n");
}

TEST_F(DirectivesTest, ComplaintsAreShownAtAnyDebugLevel) {
    for (const int level : {LDAP_DEBUG_TRACE, LDAP_DEBUG_STATS, LDAP_DEBUG_NONE}) {
        const DebugLevels levels(level, level);
        EXPECT_EQ(complaint({"dirgate.cache.ttl", "0"}),
                  "slapd.conf: line 7: dirgate.cache.ttl's value '0' is invalid.\n")
            << "level " << level;
    }
}

// Whoever debugs the library alone does not see slapd's debug log.
TEST_F(DirectivesTest, TheServersDebugLevelCountsAndNotTheLibrarys) {
    const DebugLevels levels(0, -1);
    EXPECT_EQ(complaint({"dirgate.cache.ttl", "0"}),
              "dirgate ERROR: slapd.conf: line 7: dirgate.cache.ttl's value '0' is invalid.\n");
}

// ------------------------------------------------------------ vextranslation

class TranslationDirectiveTest : public DirectivesTest {
  protected:
    std::string file(const std::string& text) {
        return m_folder.write("map" + std::to_string(m_files++), text);
    }
    const vorn::test::TemporaryFolder m_folder;
    int m_files = 0;
};

TEST_F(TranslationDirectiveTest, LoadsTheMapAndIgnoresFurtherWords) {
    EXPECT_EQ(configure({"VexTranslation", file("posixAccount = User\n"), "and", "more"}), 0);
    ASSERT_NE(gTranslationMap, nullptr);
    EXPECT_EQ(gTranslationMap->get("POSIXACCOUNT", ""), "User");
}

TEST_F(TranslationDirectiveTest, ALaterLineReplacesTheMapAndTheOldOneStays) {
    EXPECT_EQ(configure({"vextranslation", file("a = 1\n")}), 0);
    const vorn::Properties* first = gTranslationMap;
    EXPECT_EQ(configure({"vextranslation", file("a = 2\n")}), 0);
    EXPECT_NE(gTranslationMap, first);
    EXPECT_EQ(first->get("a", ""), "1");
    EXPECT_EQ(gTranslationMap->get("a", ""), "2");
}

TEST_F(TranslationDirectiveTest, AMissingFileNameIsRefusedWithTheDirectiveAsWritten) {
    EXPECT_EQ(complaint({"VexTranslation"}),
              "dirgate ERROR: slapd.conf: line 7: missing filenamein vextranslation line: VexTranslation.\n");
}

TEST_F(TranslationDirectiveTest, AFileThatCannotBeLoadedIsRefusedAndTheMapStays) {
    EXPECT_EQ(configure({"vextranslation", file("a = 1\n")}), 0);
    const std::string malformed = file("good = 1\nbad = \\u12\n");
    EXPECT_THAT(complaint({"vextranslation", malformed}),
                HasSubstr("dirgate ERROR: slapd.conf: line 7: " + malformed + ":2: "));
    EXPECT_THAT(complaint({"vextranslation", "/nonexistent/map"}),
                HasSubstr("dirgate ERROR: slapd.conf: line 7: /nonexistent/map: "));
    EXPECT_EQ(gTranslationMap->get("a", ""), "1");
}

TEST_F(TranslationDirectiveTest, AMapThatIsAbsentAfterLoadingIsRefused) {
    memoryIsExhausted = true;
    const std::string said = complaint({"vextranslation", "rfc2307.map"});
    memoryIsExhausted = false;
    EXPECT_EQ(said, "dirgate ERROR: slapd.conf: line 7: Properties(rfc2307.map) failed\n");
}

TEST_F(TranslationDirectiveTest, TheMapIsShownInDebugMode) {
    const std::string path = file("posixAccount.uid = sAMAccountName\n");
    EXPECT_EQ(complaint({"vextranslation", path}, 0), "");
    slap_debug = 1;
    EXPECT_THAT(complaint({"vextranslation", path}, 0), HasSubstr("posixAccount.uid = sAMAccountName\n"));
    slap_debug = -1;
    EXPECT_THAT(complaint({"vextranslation", path}, 0), HasSubstr("posixAccount.uid = sAMAccountName\n"));
}

TEST_F(TranslationDirectiveTest, TheMapIsShownAtTheServersDebugLevelAndNotTheLibrarys) {
    const std::string path = file("posixAccount.uid = sAMAccountName\n");
    {
        const DebugLevels levels(1, 0);
        EXPECT_THAT(complaint({"vextranslation", path}, 0), HasSubstr("posixAccount.uid = sAMAccountName\n"));
    }
    const DebugLevels levels(0, -1);
    EXPECT_THAT(complaint({"vextranslation", path}, 0), testing::Not(HasSubstr("posixAccount.uid")));
}

// Whoever has renamed the log file and reads the configuration again gets a new one.
TEST_F(TranslationDirectiveTest, TheLogFileIsOpenedAnew) {
    const std::string log = m_folder.path() + "/log";
    setenv("ZANTHE_CONF", m_folder.write("zanthe.conf", "log.file = " + log + "\nlog.level = 1\n").c_str(),
           1);
    vorn::Logger::ReconfigureLevels(vorn::Props(true, true));
    JPrintf("before");
    ASSERT_EQ(std::rename(log.c_str(), (log + ".1").c_str()), 0);
    EXPECT_EQ(configure({"vextranslation", file("a = 1\n")}), 0);
    JPrintf("after");
    EXPECT_EQ(std::ifstream(log).good(), true);
    std::ofstream(m_folder.path() + "/zanthe.conf") << "log.level = 4\n";
    EXPECT_EQ(configure({"vextranslation", file("a = 1\n")}), 0);
    EXPECT_TRUE(JPrintfEnabled()) << "the settings are those that were read";
    vorn::Logger::ReconfigureLevels(vorn::Props(true, true));
}

// ---------------------------------------------------------- paged.critical

TEST_F(DirectivesTest, PagedCriticalListsTheControl) {
    slap_cids.sc_pagedResults = 5;
    EXPECT_EQ(configure({"dirgate.cache.enabled", "false"}), 0);
    EXPECT_EQ(m_info.bi_controls, nullptr);
    EXPECT_EQ(configure({"dirgate.paged.critical", "true"}), 0);
    ASSERT_NE(m_info.bi_controls, nullptr);
    EXPECT_STREQ(m_info.bi_controls[0], "1.2.840.113556.1.4.319");
    EXPECT_EQ(m_info.bi_controls[1], nullptr);
    EXPECT_EQ(m_info.bi_ctrls[5], 1);
    EXPECT_EQ(configure({"dirgate.paged.critical", "false"}), 0);
    EXPECT_EQ(m_info.bi_controls, nullptr);
    EXPECT_EQ(m_info.bi_ctrls[5], 0);
}

// ------------------------------------------------------------ ldap.standard

TEST_F(DirectivesTest, TheStandardModeListsTheControlsThatItKeepsTo) {
    slap_cids.sc_pagedResults = 5;
    slap_cids.sc_assert = 6;
    slap_cids.sc_manageDSAit = 7;
    EXPECT_EQ(configure({"dirgate.ldap.standard", "true"}), 0);
    ASSERT_NE(m_info.bi_controls, nullptr);
    EXPECT_STREQ(m_info.bi_controls[0], "1.2.840.113556.1.4.319");
    EXPECT_STREQ(m_info.bi_controls[1], "1.3.6.1.1.12");
    EXPECT_STREQ(m_info.bi_controls[2], "2.16.840.1.113730.3.4.2");
    EXPECT_EQ(m_info.bi_controls[3], nullptr);
    for (const int control : {5, 6, 7}) EXPECT_EQ(m_info.bi_ctrls[control], 1) << control;
    EXPECT_NE(m_info.bi_op_compare, nullptr);
    EXPECT_EQ(configure({"dirgate.ldap.standard", "false"}), 0);
    EXPECT_EQ(m_info.bi_controls, nullptr);
    for (const int control : {5, 6, 7}) EXPECT_EQ(m_info.bi_ctrls[control], 0) << control;
    EXPECT_EQ(m_info.bi_op_compare, nullptr);
}

// -------------------------------------------------------- database sections

TEST_F(DirectivesTest, ADatabaseSectionTakesTheSameDirectives) {
    EXPECT_EQ(configureDatabase({"dirgate.cache.ttl", "60"}), 0);
    EXPECT_EQ(gCacheTTL, 60);
    standin::CapturedStderr captured;
    EXPECT_EQ(configureDatabase({"dirgate.cache.ttl", "0"}), 1);
    EXPECT_EQ(configureDatabase({"nobody.knows.this", "x"}), 0);
}

// The keywords of two overlays; a third one has none.
TEST_F(DirectivesTest, WhatAnOverlayKnowsIsLeftToIt) {
    load_overlays();
    for (const char* name :
         {"refint_attributes", "REFINT_Nothing", "unique_uri", "prefix-", "Prefix-anything"})
        EXPECT_EQ(configureDatabase({name, "x"}), SLAP_CONF_UNKNOWN) << name;
    for (const char* name : {"refint_attribute", "refint_attributes2", "prefix", "other", "suffix"})
        EXPECT_EQ(configureDatabase({name, "x"}), 0) << name;
    EXPECT_EQ(configureDatabase({"dirgate.cache.ttl", "60"}), 0) << "an overlay knows this one, too";
    EXPECT_EQ(gCacheTTL, 60);
    unload_overlays();
    EXPECT_EQ(configureDatabase({"refint_attributes", "x"}), 0);
}

}  // namespace
