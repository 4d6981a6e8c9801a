// SPDX-License-Identifier: Apache-2.0
#include "auth/statistics.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <utility>

#include "backend/base/settings.h"
#include "tests/standin/captured.h"

#include "tests/standin/slapd_standin.h"

namespace {

std::time_t theTime;
std::function<void()> meanwhile;  // what another bind does when the time is asked next

std::time_t askTheTime() {
    if (meanwhile) std::exchange(meanwhile, nullptr)();
    return theTime;
}

class Statistics : public testing::Test {
  protected:
    void SetUp() override {
        theTime = 1000;
        gLogInterval = 60;
        slap_debug = 1;  // lines go to standard error
    }
    void TearDown() override {
        gLogInterval = 0;
        slap_debug = 0;
    }

    void start() { statistics.startOnce(); }

    standin::CapturedStderr captured;
    vorn::ReaderWriterLock lock;
    BindStatistics statistics{lock, askTheTime};
};

TEST_F(Statistics, StartsOnceWithCountersAtZero) {
    statistics.setCounters({9, 8, 7, 6});
    start();
    EXPECT_EQ(statistics.counters().total, 0u);
    EXPECT_EQ(statistics.counters().averageMilliseconds, 0u);
    statistics.countBind();
    start();
    EXPECT_EQ(statistics.counters().total, 1u);
}

TEST_F(Statistics, CountsEachKind) {
    start();
    for (int i = 0; i < 5; ++i) statistics.countBind();
    statistics.countCacheSuccess();
    statistics.countAgentSuccess(0, 10000);
    EXPECT_EQ(statistics.counters().total, 5u);
    EXPECT_EQ(statistics.counters().fromCache, 1u);
    EXPECT_EQ(statistics.counters().fromAgent, 1u);
    EXPECT_EQ(statistics.counters().averageMilliseconds, 10u);
}

TEST_F(Statistics, WithoutAnIntervalNothingIsCountedOrWritten) {
    gLogInterval = 0;
    start();
    statistics.countBind();
    statistics.countCacheSuccess();
    statistics.countAgentSuccess(0, 10000);
    theTime = 999999;
    statistics.logWhenDue();
    EXPECT_EQ(statistics.counters().total, 0u);
    EXPECT_EQ(statistics.counters().fromCache, 0u);
    EXPECT_EQ(statistics.counters().fromAgent, 0u);
    EXPECT_EQ(captured.text(), "");
}

TEST_F(Statistics, AveragesInWholeMilliseconds) {
    const struct {
        std::int64_t start, end;
        std::uint32_t average;
    } cases[] = {
        {5'000'000, 5'009'999, 9},  // 9.999 ms are 9
        {0, 12'000, 10},            // (12 + 9) / 2 is 10.5
        {0, 999, 6},                // (0 + 2 * 10) / 3
        {7'000'000, 6'000'000, 4},  // a clock set back counts as 0: 18 / 4
        {0, 104'000, 24},           // (104 + 4 * 4) / 5
    };
    start();
    for (const auto& [from, to, average] : cases) {
        statistics.countAgentSuccess(from, to);
        EXPECT_EQ(statistics.counters().averageMilliseconds, average) << to - from;
    }
}

TEST_F(Statistics, ArithmeticWrapsAt32Bits) {
    start();
    statistics.setCounters({3, 2, 2, 0});
    theTime = 1060;
    statistics.logWhenDue();  // one failure fewer than none
    statistics.setCounters({0, 0, 3, 0x60000000});
    statistics.countAgentSuccess(0, 0);
    EXPECT_EQ(statistics.counters().averageMilliseconds, 0x08000000u);  // 3 * 0x60000000 is 0x20000000
    statistics.setCounters({0, 0, 0xffffffff, 17});
    statistics.countAgentSuccess(0, 5000);
    EXPECT_EQ(statistics.counters().fromAgent, 0u);
    EXPECT_EQ(statistics.counters().averageMilliseconds, 17u);
    EXPECT_EQ(captured.text(),
              "auth total: 3, success from cache: 2, success from vexagent: 2, success from vexagent average "
              "time: 0ms, auth failed: 4294967295\n");
}

TEST_F(Statistics, WritesOneLineAnIntervalAndCountsOn) {
    const std::string line =
        "auth total: 4, success from cache: 1, success from vexagent: 2, success from vexagent average time: "
        "7ms, "
        "auth failed: 1\n";
    start();
    statistics.setCounters({4, 1, 2, 7});
    theTime = 1059;
    statistics.logWhenDue();
    EXPECT_EQ(captured.text(), "");
    theTime = 1060;
    statistics.logWhenDue();
    EXPECT_EQ(captured.text(), line);
    theTime = 1119;
    statistics.logWhenDue();
    EXPECT_EQ(captured.text(), line);
    theTime = 1500;
    statistics.logWhenDue();
    statistics.logWhenDue();
    EXPECT_EQ(captured.text(), line + line);
    EXPECT_EQ(statistics.counters().total, 4u);
}

TEST_F(Statistics, OfTwoBindsAtOnceOneWritesTheLine) {
    start();
    theTime = 1060;
    meanwhile = [&] { statistics.logWhenDue(); };
    statistics.logWhenDue();
    EXPECT_EQ(std::ranges::count(captured.text(), '\n'), 1);
}

TEST_F(Statistics, AnEndlessIntervalNeverWrites) {
    gLogInterval = std::numeric_limits<std::int64_t>::max();
    start();
    theTime = std::numeric_limits<std::time_t>::max() - 1;
    statistics.logWhenDue();
    EXPECT_EQ(captured.text(), "");
}

}  // namespace
