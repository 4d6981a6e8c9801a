// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/housekeeper.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>

namespace vexagent {
namespace {

using std::chrono::hours;

// Waits for so many rounds; a test that never sees them ends by its own time limit.
void await(const std::atomic<int>& rounds, int count) {
    for (int seen = rounds; seen < count; seen = rounds) rounds.wait(seen);
}

TEST(Housekeeper, WorksAtOnceAndEachTimeThatItIsWoken) {
    std::atomic<int> rounds = 0;
    Housekeeper house(hours(1), [&] {
        ++rounds;
        rounds.notify_all();
    });
    await(rounds, 1);
    house.wake();
    await(rounds, 2);
    house.wake();
    await(rounds, 3);
}

TEST(Housekeeper, WorksAgainWhenThePauseIsOver) {
    std::atomic<int> rounds = 0;
    const Housekeeper house(std::chrono::milliseconds(1), [&] {
        ++rounds;
        rounds.notify_all();
    });
    await(rounds, 3);
}

TEST(Housekeeper, ItsWorkIsOverWhenItEnds) {
    std::atomic<int> rounds = 0;
    {
        const Housekeeper house(hours(1), [&] {
            ++rounds;
            rounds.notify_all();
        });
        await(rounds, 1);
    }
    EXPECT_GE(rounds, 1);
}

}  // namespace
}  // namespace vexagent
