// SPDX-License-Identifier: Apache-2.0
// The registry of open searches: what it bounds, and that it waits for nobody.

#include "search/handles.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "search/page_name.h"
#include "tests/standin/vex_standin.h"

#include "tests/standin/slapd_standin.h"

namespace {

using testing::Contains;
using testing::IsEmpty;
using testing::Not;

constexpr std::size_t kMaxOfConnection = SearchHandleManager::kMaxOfConnection;
constexpr std::size_t kMaxOfProcess = SearchHandleManager::kMaxOfProcess;

class HandlesTest : public testing::Test {
  protected:
    HandlesTest() { standin::reset(); }
    ~HandlesTest() override {
        m_handles.clearAllSearchHandle();
        EXPECT_THAT(standin::leaks(), IsEmpty());
        EXPECT_THAT(standin::failures(), IsEmpty());
    }

    // A search that the agent holds open, or a replay, which has a session only.
    static SharedHandle openSearch() {
        auto handle = std::make_shared<LdapSearchHandle>();
        vexSession* session = nullptr;
        vexSessionOpen(VEX_SESSION_LOCAL, VEX_INTERFACE_LEVEL, &session);
        vexLdapSearchOpen(session, "", "", "", nullptr, 2, -1, 0, &handle->search);
        return handle;
    }
    static SharedHandle replay() {
        auto handle = std::make_shared<LdapSearchHandle>();
        vexSessionOpen(VEX_SESSION_LOCAL, VEX_INTERFACE_LEVEL, &handle->cache.session);
        return handle;
    }

    // A page's name is its number; a light one has no search behind it.
    void issueLight(unsigned long connection, const std::string& peer, std::uint64_t name) {
        issue(connection, peer, name, std::make_shared<LdapSearchHandle>());
    }
    void issue(unsigned long connection, const std::string& peer, std::uint64_t name, SharedHandle handle) {
        m_handles.issue(connection, peer, {std::move(handle), nullptr, 1, {name, 1}});
    }
    bool claims(unsigned long connection, std::uint64_t name) {
        return m_handles.claim(connection, 1, {name, 1}).has_value();
    }
    static long closings() {
        const auto calls = standin::requests();
        return std::count_if(calls.begin(), calls.end(),
                             [](const auto& call) { return call.starts_with("vexLdapSearchClose"); });
    }

    SearchHandleManager m_handles;
};

TEST_F(HandlesTest, ACookieClaimsItsPageOnceByAllThatItHolds) {
    m_handles.issue(1, "IP=a", {std::make_shared<LdapSearchHandle>(), nullptr, 4, {7, 9}});
    EXPECT_FALSE(m_handles.claim(1, 2, {7, 9})) << "of an earlier page";
    EXPECT_FALSE(m_handles.claim(2, 4, {7, 9})) << "another connection";
    EXPECT_FALSE(m_handles.claim(1, 4, {9, 7}));
    EXPECT_FALSE(m_handles.claim(1, 4, {7, 8}));
    EXPECT_FALSE(m_handles.claim(1, 4, {8, 9}));
    EXPECT_TRUE(m_handles.claim(1, 4, {7, 9}));
    EXPECT_FALSE(m_handles.claim(1, 4, {7, 9})) << "twice";
}

// The stand-in ends the process when it is called under a lock. Another thread could be
// waiting for the registry: this one asks it in the middle of each closing.
TEST_F(HandlesTest, SearchesAreClosedWithoutTheLock) {
    int asked = 0;
    for (const char* function : {"vexLdapSearchClose", "vexSessionClose"}) {
        standin::onCall(function, [&] {
            m_handles.getSearchHandle(99);
            m_handles.setSearchHandle(98, nullptr);
            ++asked;
        });
    }
    const auto fill = [&] {
        const SharedHandle registered = openSearch();
        m_handles.setSearchHandle(1, registered);
        issue(1, "IP=a", 1, registered);
        issue(1, "IP=a", 2, openSearch());
        issue(1, "IP=a", 3, replay());
        m_handles.keep(1, "IP=a", openSearch());
    };
    fill();
    m_handles.delSearchHandle(1);
    EXPECT_EQ(asked, 7);
    fill();
    m_handles.clearAllSearchHandle();
    EXPECT_EQ(asked, 14);
    for (std::size_t i = 0; i < kMaxOfConnection + 1; ++i) issue(1, "IP=a", i, openSearch());
    EXPECT_EQ(asked, 16) << "one beyond the bound";
    m_handles.clearAllSearchHandle();
    EXPECT_EQ(asked, 16 + 2 * static_cast<int>(kMaxOfConnection));
}

TEST_F(HandlesTest, BeyondItsBoundAConnectionsOldestPageEnds) {
    const SharedHandle registered = openSearch();
    m_handles.setSearchHandle(1, registered);
    issue(1, "IP=a", 1, registered);
    for (std::uint64_t name = 2; name <= kMaxOfConnection; ++name) issueLight(1, "IP=a", name);
    issueLight(2, "IP=a", 1);
    EXPECT_EQ(closings(), 0);
    issueLight(1, "IP=a", 1000);
    EXPECT_EQ(closings(), 1) << "although it stays registered";
    EXPECT_EQ(m_handles.getSearchHandle(1), registered);
    EXPECT_FALSE(claims(1, 1));
    EXPECT_TRUE(claims(1, 2));
    EXPECT_TRUE(claims(1, 1000));
    EXPECT_TRUE(claims(2, 1)) << "another connection's";
}

TEST_F(HandlesTest, APageThatWasClaimedDoesNotCount) {
    for (std::uint64_t name = 1; name <= 10 * kMaxOfConnection; ++name) {
        issueLight(1, "IP=a", name);
        if (name == 1) continue;
        EXPECT_TRUE(claims(1, name));
    }
    EXPECT_TRUE(claims(1, 1));
}

TEST_F(HandlesTest, KeptHandlesAreBoundedAndEndNoPage) {
    issueLight(1, "IP=a", 1);
    for (std::size_t i = 0; i < 3 * kMaxOfConnection; ++i) m_handles.keep(1, "IP=a", openSearch());
    EXPECT_EQ(closings(), static_cast<long>(2 * kMaxOfConnection));
    EXPECT_TRUE(claims(1, 1));
}

class ManyPagesTest : public HandlesTest {
  protected:
    // The process's bound, in the hands of one greedy peer but for a page of another.
    ManyPagesTest() {
        issueLight(1, "IP=modest", 1);
        for (std::size_t i = 1; i < kMaxOfProcess; ++i) issueLight(100 + i, "IP=greedy", i);
    }
};

TEST_F(ManyPagesTest, TheOldestOfThePeerThatHoldsMostEnds) {
    issueLight(2, "IP=newcomer", 1);
    EXPECT_FALSE(claims(101, 1)) << "the greedy peer's oldest";
    EXPECT_TRUE(claims(102, 2));
    EXPECT_TRUE(claims(1, 1)) << "older, but another's";
    EXPECT_TRUE(claims(2, 1));
}

TEST_F(ManyPagesTest, AGreedyPeersNewPageEndsItsOwn) {
    for (std::size_t i = 1; i <= 1000; ++i) issueLight(10000 + i, "IP=greedy", i);
    EXPECT_FALSE(claims(1100, 1000));
    EXPECT_TRUE(claims(1101, 1001));
    EXPECT_TRUE(claims(1, 1));
}

TEST_F(ManyPagesTest, AtTheConnectionsBoundNobodyElseLosesAPage) {
    for (std::size_t i = 1; i <= 2 * kMaxOfConnection; ++i) issueLight(2, "IP=other", i);
    // Its first 64 took the place of greedy ones, the others that of its own.
    EXPECT_FALSE(claims(2, kMaxOfConnection));
    EXPECT_TRUE(claims(2, kMaxOfConnection + 1));
    EXPECT_FALSE(claims(100 + kMaxOfConnection, kMaxOfConnection));
    EXPECT_TRUE(claims(101 + kMaxOfConnection, kMaxOfConnection + 1));
}

TEST_F(ManyPagesTest, KeptHandlesCountAndGoFirst) {
    EXPECT_TRUE(claims(200, 100));
    m_handles.keep(300, "IP=greedy", openSearch());
    EXPECT_EQ(closings(), 0);
    issueLight(2, "IP=newcomer", 1);
    EXPECT_EQ(closings(), 1);
    EXPECT_TRUE(claims(101, 1)) << "the oldest page stays";
}

TEST_F(ManyPagesTest, WhatEndedOrWasClearedIsRoomForOthers) {
    // Its first takes the place of a greedy one; the two beyond its own bound that of its own.
    for (std::size_t i = 1; i <= kMaxOfConnection + 2; ++i) issueLight(2, "IP=other", i);
    m_handles.delSearchHandle(2);
    for (std::size_t i = 1; i <= kMaxOfConnection; ++i) issueLight(2, "IP=other", i);
    EXPECT_TRUE(claims(101 + kMaxOfConnection, kMaxOfConnection + 1)) << "nobody had to go";
    m_handles.clearAllSearchHandle();
    for (std::size_t i = 1; i <= kMaxOfProcess; ++i) issueLight(i, "IP=other", i);
    EXPECT_TRUE(claims(1, 1));
}

TEST_F(ManyPagesTest, WhatAClosedConnectionHeldIsRoomForOthers) {
    m_handles.delSearchHandle(101);
    issueLight(2, "IP=newcomer", 1);
    EXPECT_TRUE(claims(102, 2));
}

TEST(Peer, IsTheAddressWithoutThePortOrThePath) {
    const struct {
        std::string name, peer;
    } cases[] = {{"IP=127.0.0.1:389", "IP=127.0.0.1"},
                 {"IP=[::1]:40000", "IP=[::1]"},
                 {"PATH=/run/a:b", "PATH=/run/a:b"},
                 {"", ""}};
    for (auto [name, peer] : cases) {
        standin::FakeConnection connection;
        connection.connection()->c_peer_name = {name.size(), name.data()};
        standin::FakeOperation operation(connection);
        EXPECT_EQ(peerOf(*operation.op()), peer);
        connection.connection()->c_peer_name = {0, nullptr};
    }
}

TEST(PageName, IsAnotherEachTime) {
    const auto one = PageName::draw();
    const auto another = PageName::draw();
    ASSERT_TRUE(one && another);
    EXPECT_NE(one->first, another->first);
    EXPECT_NE(one->second, another->second);
    EXPECT_NE(one->first, 0U);
    EXPECT_NE(one->second, 0U);
}

}  // namespace
