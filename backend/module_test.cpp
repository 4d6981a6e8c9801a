// SPDX-License-Identifier: Apache-2.0
// The module's life as slapd sees it. One test: registration and destroy happen
// once in a process.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "auth/bind.h"
#include "auth/credentials.h"
#include "auth/password_change.h"
#include "backend/backend.h"
#include "cache/search_cache.h"
#include "search/handles.h"
#include "search/search.h"
#include "standard/operations.h"
#include "tests/standin/captured.h"
#include "tests/standin/vex_standin.h"
#include "vex/handles.h"
#include "vorn/thread.h"

#include "tests/standin/slapd_standin.h"

extern "C" slap_overinst* overlay_next(slap_overinst* /*previous*/) {
    return nullptr;
}

namespace {

using testing::IsEmpty;

// Below the hard limit, and above all that a test needs.
void lowerDataLimit() {
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_DATA, &limit), 0);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, RLIM_INFINITY) - 1;
    ASSERT_EQ(setrlimit(RLIMIT_DATA, &limit), 0);
}

BackendInfo* registered() {
    static BackendInfo* const info = [] {
        standin::reset();
        standin::resetSlapd();
        // What slapd finds to say of a second module of this name is its own affair.
        standin::registrationAnswers(-1);
        lowerDataLimit();
        EXPECT_EQ(init_module(0, nullptr), 0);
        return standin::registeredBackend();
    }();
    return info;
}

struct ModuleTest : testing::Test {
    static void SetUpTestSuite() { registered(); }
};

TEST_F(ModuleTest, RegistersUnderItsTypeName) {
    EXPECT_STREQ(registered()->bi_type, "zanthedx");
    EXPECT_EQ(registered()->bi_init, vex_back_initialize);
}

TEST_F(ModuleTest, RaisesTheLimitOfTheDataSegment) {
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_DATA, &limit), 0);
    EXPECT_EQ(limit.rlim_cur, limit.rlim_max);
}

TEST_F(ModuleTest, SwitchesThreadsOn) {
    static std::atomic<bool> ran = false;
    vorn::Thread thread;
    const auto body = [](void*) -> void* {
        ran = true;
        return nullptr;
    };
    ASSERT_NO_THROW(thread.start("zx-test", body, nullptr, 50));
    thread.kill();
    EXPECT_TRUE(ran);
}

TEST_F(ModuleTest, InstallsItsHooksAndNoOthers) {
    BackendInfo expected{};
    expected.bi_type = registered()->bi_type;
    expected.bi_init = vex_back_initialize;
    expected.bi_config = vex_back_config;
    expected.bi_db_config = vex_back_db_config;
    expected.bi_db_init = vex_back_db_init;
    expected.bi_db_destroy = vex_back_destroy;
    expected.bi_op_bind = vex_back_bind;
    expected.bi_op_search = vex_back_search;
    expected.bi_connection_destroy = vex_conn_destroy;
    // NOLINTNEXTLINE(bugprone-suspicious-memory-comparison): both were zeroed as a whole
    EXPECT_EQ(std::memcmp(registered(), &expected, sizeof expected), 0)
        << "the back-end is read-only: every other hook is null";
}

TEST_F(ModuleTest, TheStandardModesHooksComeAndGoWithIt) {
    BackendInfo info = *registered();
    installHooks(&info, true);
    EXPECT_EQ(info.bi_op_search, standard::search);
    EXPECT_EQ(info.bi_op_bind, vex_back_bind);
    for (BI_op_func* write : {info.bi_op_add, info.bi_op_delete, info.bi_op_modify, info.bi_op_modrdn})
        EXPECT_EQ(write, standard::refuseWrite);
    EXPECT_EQ(info.bi_op_compare, standard::compare);
    EXPECT_EQ(info.bi_extended, vex_back_extended);
    EXPECT_EQ(info.bi_db_open, standard::openDatabase);
    EXPECT_EQ(info.bi_entry_get_rw, standard::getEntry);
    EXPECT_EQ(info.bi_entry_release_rw, standard::releaseEntry);
    EXPECT_EQ(info.bi_operational, standard::operational);
    EXPECT_EQ(info.bi_has_subordinates, standard::hasSubordinates);
    installHooks(&info, false);
    // NOLINTNEXTLINE(bugprone-suspicious-memory-comparison): a copy, padding and all
    EXPECT_EQ(std::memcmp(&info, registered(), sizeof info), 0);
}

TEST_F(ModuleTest, WhateverHooksTheRecordHadAreGone) {
    const BackendInfo* clean = registered();
    CredManager* const creds = back_vex_creds;
    SearchHandleManager* const handles = back_vex_search_handle;
    BackendInfo info;
    std::memset(&info, 0xA5, sizeof info);
    EXPECT_EQ(vex_back_initialize(&info), 0);
    delete std::exchange(back_vex_creds, creds);
    delete std::exchange(back_vex_search_handle, handles);

    const auto hooks = [](const BackendInfo& of) {
        return std::string(reinterpret_cast<const char*>(&of.bi_config),
                           offsetof(BackendInfo, bi_flags) - offsetof(BackendInfo, bi_config));
    };
    EXPECT_EQ(hooks(info), hooks(*clean));
    EXPECT_EQ(info.bi_flags, 0xA5A5A5A5A5A5A5A5U) << "what is no hook stays";
}

TEST_F(ModuleTest, TheOpenHookThatIsNotInstalledWouldListAllControls) {
    BackendInfo info{};
    EXPECT_EQ(vex_back_open(&info), 0);
    EXPECT_EQ(info.bi_controls, &slap_known_controls[0]);
    EXPECT_EQ(registered()->bi_open, nullptr);
}

TEST_F(ModuleTest, MakesTheTwoManagers) {
    EXPECT_NE(back_vex_creds, nullptr);
    EXPECT_NE(back_vex_search_handle, nullptr);
    EXPECT_EQ(vex_back_db_init(nullptr, nullptr), 0);
}

TEST_F(ModuleTest, ClosingAConnectionThatNeverBoundOrSearchedLogsTheLine) {
    const standin::CapturedLog log;
    standin::FakeConnection connection(4294972007);  // wider than 32 bits
    standin::forgetCalls();
    EXPECT_EQ(vex_conn_destroy(nullptr, connection.connection()), 0);
    EXPECT_EQ(log.records().size(), 1U);
    EXPECT_TRUE(log.has("vex connection id 4294972007 being destroyed"));
    EXPECT_THAT(standin::calls(), IsEmpty());
}

TEST_F(ModuleTest, ClosingAConnectionDropsItsCredentialAndItsSearch) {
    back_vex_creds->addCreds(9, "cn=ann", "secret");
    back_vex_search_handle->setSearchHandle(9, std::make_shared<LdapSearchHandle>());
    standin::FakeConnection connection(9);
    EXPECT_EQ(vex_conn_destroy(nullptr, connection.connection()), 0);
    EXPECT_EQ(back_vex_creds->doCacheAuth("cn=ann", "secret"), 0);
    EXPECT_EQ(back_vex_search_handle->getSearchHandle(9), nullptr);
}

// An object in the cache.
void fillCache() {
    SearchCacheManager* cache = SearchCacheManager::GetCacheManager();
    cache->init(true, 10, 10, 60, 60, 0, 1.3F);
    const vex::UniqueObject object(standin::makeObject({{"cn", {"ann"}}}));
    cache->putObj("guid", object.get());
}

// Whether the agent's library was called for the one before it was for the other.
bool isFreedBefore(const std::string& one, const std::string& other) {
    const std::vector<std::string> calls = standin::calls();
    const auto first = std::find(calls.begin(), calls.end(), one);
    return first != calls.end() && std::find(first, calls.end(), other) != calls.end();
}

// In a process of its own: nothing can follow it.
TEST(ModuleDeathTest, DestroyFreesEverythingAndASecondDatabaseNothingTwice) {
    EXPECT_EXIT(
        {
            registered();
            standin::forgetCalls();
            standin::supported({"cn"});
            vexSession* session = nullptr;
            vexStringSet* names = nullptr;
            vexSessionOpen(1, 21, &session);
            vexGetObjectSupportedAttributes(session, &names);
            vexSessionClose(session);
            gSupportedObjectAttrList = names;
            fillCache();
            back_vex_creds->addCreds(9, "cn=ann", "secret");
            back_vex_search_handle->setSearchHandle(9, std::make_shared<LdapSearchHandle>());
            const standin::CapturedLog log;
            vex_back_destroy(nullptr, nullptr);
            const auto records = log.records();
            const auto tellsOfTheHandle = [](const std::string& record) {
                return record.find("delSearchHandle: handle:0x") != std::string::npos;
            };
            if (std::count_if(records.begin(), records.end(), tellsOfTheHandle) != 1) std::_Exit(4);
            vex_back_destroy(nullptr, nullptr);
            if (!isFreedBefore("vexFreeObject(object2)", "vexFreeStringSet(set1)")) std::_Exit(2);
            if (SearchCacheManager::GetCacheManager()->isInitialized()) std::_Exit(3);
            for (const auto& leak : standin::leaks()) std::fprintf(stderr, "leak: %s\n", leak.c_str());
            for (const auto& failure : standin::failures()) std::fprintf(stderr, "%s\n", failure.c_str());
            std::_Exit(standin::leaks().empty() && standin::failures().empty() ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(ModuleDeathTest, DestroyWithNoSearchAndNoBindEverSucceeds) {
    EXPECT_EXIT(
        {
            registered();
            standin::forgetCalls();
            vex_back_destroy(nullptr, nullptr);
            std::_Exit(standin::calls().empty() ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

}  // namespace
