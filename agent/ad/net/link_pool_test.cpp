// SPDX-License-Identifier: Apache-2.0
// Connections that are lent, kept and closed.

#include "agent/ad/net/link_pool.h"

#include <gmock/gmock.h>

#include "agent/ad/net/link_testing.h"

namespace vexagent {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class LinkPoolTest : public ::testing::Test {
  protected:
    LinkPoolTest() { m_connector.options.connections = 2; }

    LinkPool::Lease lend() {
        auto link = m_connector.open("example.com", m_peer, soon());
        m_connector.takeEvents();
        return {m_pool, std::move(*link)};
    }
    bool has() { return m_pool.take(m_peer, soon()) != nullptr; }
    Deadline soon() const { return m_connector.within(milliseconds(8000)); }

    FakeConnector m_connector;
    LinkPool m_pool{m_connector.context};
    const Peer m_peer{"dc1", 636};
};

TEST_F(LinkPoolTest, WhatIsGivenBackIsLentAgain) {
    EXPECT_FALSE(has());
    lend();
    EXPECT_TRUE(has());
    EXPECT_FALSE(has()) << "it was taken";
    EXPECT_FALSE(m_pool.take({"dc2", 636}, soon()));
}

TEST_F(LinkPoolTest, WhatIsSpoiledOrUnusableIsClosed) {
    lend().spoil();
    EXPECT_FALSE(has());
    m_connector.controllers["dc1"].keepsIdle = false;
    lend();
    EXPECT_FALSE(has());
    EXPECT_EQ(m_connector.openLinks, 0);
}

TEST_F(LinkPoolTest, NoMoreAreKeptThanMayBeUsed) {
    {
        std::vector<LinkPool::Lease> leases;
        for (int i = 0; i < 3; ++i) leases.push_back(lend());
    }
    EXPECT_EQ(m_connector.openLinks, 2);
}

TEST_F(LinkPoolTest, OneThatNobodyUsedForAWhileIsTriedFirst) {
    lend();
    m_connector.clock.advance(LinkPool::kTrustTime - milliseconds(1));
    EXPECT_TRUE(has());
    EXPECT_THAT(m_connector.takeEvents(), IsEmpty());
    lend();
    m_connector.clock.advance(LinkPool::kTrustTime);
    EXPECT_TRUE(has());
    EXPECT_THAT(m_connector.takeEvents(), ElementsAre("search dc1 "));
    lend();
    m_connector.clock.advance(LinkPool::kTrustTime);
    m_connector.controllers["dc1"].hangs = true;
    const Moment start = m_connector.clock.now();
    EXPECT_FALSE(has());
    EXPECT_EQ(m_connector.clock.now() - start, milliseconds(1000)) << "shortly";
}

TEST_F(LinkPoolTest, WhatNobodyUsesIsClosedAfterFiveMinutes) {
    lend();
    m_connector.clock.advance(LinkPool::kIdleTime);
    m_pool.dropOld();
    EXPECT_EQ(m_connector.openLinks, 1);
    m_connector.clock.advance(milliseconds(1));
    m_pool.dropOld();
    EXPECT_EQ(m_connector.openLinks, 0);
}

TEST_F(LinkPoolTest, WhatItsPeerHasClosedIsClosedWhenItIsSeen) {
    lend();
    m_connector.controllers["dc1"].keepsIdle = false;
    m_pool.dropOld();
    EXPECT_EQ(m_connector.openLinks, 0);
    m_connector.controllers["dc1"].keepsIdle = true;
    lend();
    m_connector.controllers["dc1"].keepsIdle = false;
    EXPECT_FALSE(has());
    EXPECT_EQ(m_connector.openLinks, 0);
}

TEST_F(LinkPoolTest, TheConnectionsToOneControllerAreClosedTogether) {
    {
        const LinkPool::Lease one = lend();
        const LinkPool::Lease two = lend();
    }
    m_pool.drop({"dc2", 636});
    EXPECT_EQ(m_connector.openLinks, 2);
    m_pool.drop(m_peer);
    EXPECT_EQ(m_connector.openLinks, 0);
}

TEST_F(LinkPoolTest, FourTimesAsManyLeasesLastLonger) {
    std::vector<LinkPool::Lease> kept;
    for (std::size_t i = 0; i < m_pool.mostLong(); ++i) {
        kept.push_back(lend());
        EXPECT_TRUE(kept.back().keep());
    }
    EXPECT_EQ(kept.size(), 8u);
    EXPECT_FALSE(lend().keep());
    kept.pop_back();
    EXPECT_TRUE(lend().keep());
}

TEST_F(LinkPoolTest, ATurnIsWaitedForUntilTheDeadlineOnly) {
    const auto one = m_pool.takeTurn(soon());
    auto two = m_pool.takeTurn(soon());
    EXPECT_TRUE(one && two);
    EXPECT_FALSE(m_pool.takeTurn(m_connector.within(milliseconds(0))));
    two.reset();
    EXPECT_TRUE(m_pool.takeTurn(m_connector.within(milliseconds(0))));
}

}  // namespace
}  // namespace vexagent
