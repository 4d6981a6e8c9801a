// SPDX-License-Identifier: Apache-2.0
#include "agent/server/open_searches.h"

#include <gtest/gtest.h>

#include <memory>

#include "vex/wire.h"

namespace vexagent {
namespace {

struct NoMore : Cursor {
    Result next(Batch&) override { return {}; }
    bool atEnd() const override { return true; }
};

std::time_t theTime = 1000;
std::uint64_t theNextId = 0;

class OpenSearchesTest : public testing::Test {
  protected:
    OpenSearchesTest() {
        theTime = 1000;
        theNextId = 0;
        m_searches.connected(m_ann);
    }
    std::uint64_t keep(const Client& client) { return m_searches.keep(client, std::make_unique<NoMore>()); }

    const Client m_ann{1, 10};
    const Client m_ben{2, 10};
    OpenSearches m_searches{[] { return theTime; }, [] { return theNextId++; }};
};

TEST_F(OpenSearchesTest, BelongToTheProcessThatOpenedThem) {
    const std::uint64_t id = keep(m_ann);
    EXPECT_EQ(id, 1u) << "no search is called 0";
    m_searches.connected(m_ben);
    EXPECT_EQ(m_searches.take(m_ben, id), nullptr);
    m_searches.close(m_ben, id);
    EXPECT_EQ(m_searches.count(), 1u);
    EXPECT_NE(m_searches.take(m_ann, id), nullptr);
}

TEST_F(OpenSearchesTest, AreWorkedOnByOneThreadAtATime) {
    const std::uint64_t id = keep(m_ann);
    std::unique_ptr<Cursor> cursor = m_searches.take(m_ann, id);
    ASSERT_NE(cursor, nullptr);
    EXPECT_EQ(m_searches.take(m_ann, id), nullptr);
    m_searches.putBack(id, std::move(cursor));
    EXPECT_NE(m_searches.take(m_ann, id), nullptr);
    m_searches.putBack(id, nullptr);
    EXPECT_EQ(m_searches.count(), 0u);
    m_searches.putBack(id, std::make_unique<NoMore>());
    EXPECT_EQ(m_searches.count(), 0u) << "closed meanwhile";
}

TEST_F(OpenSearchesTest, EndWithTheLastConnectionOfTheirProcess) {
    m_searches.connected(m_ann);
    m_searches.connected(m_ben);
    keep(m_ann);
    keep(m_ben);
    m_searches.disconnected(m_ann);
    EXPECT_EQ(m_searches.count(), 2u);
    m_searches.disconnected(m_ann);
    EXPECT_EQ(m_searches.count(), 1u);
    EXPECT_EQ(m_searches.clients(), 1u);
    EXPECT_EQ(keep(m_ann), 0u) << "who has gone will not ask for the rest";
    m_searches.disconnected(m_ann);
    EXPECT_EQ(m_searches.clients(), 1u);
}

TEST_F(OpenSearchesTest, AreSoManyForAProcessAndNoMore) {
    for (int i = 0; i < vex::wire::kMaxSearchesPerClient; ++i) ASSERT_NE(keep(m_ann), 0u);
    EXPECT_EQ(keep(m_ann), 0u);
    m_searches.connected(m_ben);
    const std::uint64_t bens = keep(m_ben);
    EXPECT_NE(bens, 0u) << "another's count for themselves";
    m_searches.close(m_ann, 1);
    EXPECT_NE(keep(m_ann), 0u);
}

TEST_F(OpenSearchesTest, EndWhenNobodyHasAskedForLong) {
    const std::uint64_t idle = keep(m_ann);
    const std::uint64_t atWork = keep(m_ann);
    const std::uint64_t used = keep(m_ann);
    const std::unique_ptr<Cursor> cursor = m_searches.take(m_ann, atWork);
    theTime += vex::wire::kSearchIdleSeconds;
    m_searches.putBack(used, m_searches.take(m_ann, used));
    m_searches.expire();
    EXPECT_EQ(m_searches.count(), 3u);
    ++theTime;
    m_searches.expire();
    EXPECT_EQ(m_searches.count(), 2u);
    EXPECT_EQ(m_searches.take(m_ann, idle), nullptr);
    EXPECT_NE(m_searches.take(m_ann, used), nullptr);
}

TEST(RandomId, IsAnotherEachTime) {
    EXPECT_NE(randomId(), randomId());
}

}  // namespace
}  // namespace vexagent
