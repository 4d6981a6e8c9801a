// SPDX-License-Identifier: Apache-2.0
#include "backend/base/agent_turns.h"

#include <gmock/gmock.h>

#include <chrono>
#include <future>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace {

using Answer = AgentTurns::Answer;
using namespace std::chrono_literals;

TEST(AgentTurns, LeaveTwoThreadsFreeButOneRequestMayAlwaysWait) {
    struct {
        int threads;
        std::size_t turns;
    } const cases[] = {{1, 1}, {2, 1},   {3, 1},   {4, 2}, {5, 3}, {8, 6},
                       {9, 6}, {16, 12}, {64, 48}, {0, 1}, {-1, 1}};
    for (const auto& one : cases) EXPECT_EQ(turnsOf(one.threads), one.turns) << one.threads;
}

TEST(AgentTurns, WhoComesBeyondThemIsTurnedAwayUntilOneIsFree) {
    AgentTurns turns(1ms);
    EXPECT_EQ(turns.take(2), Answer::Taken);
    EXPECT_EQ(turns.take(2), Answer::Taken);
    EXPECT_EQ(turns.take(2), Answer::FirstRefused);
    EXPECT_EQ(turns.take(2), Answer::Refused) << "is told once";
    turns.giveBack();
    EXPECT_EQ(turns.take(2), Answer::Taken);
    EXPECT_EQ(turns.take(2), Answer::FirstRefused) << "another time";
    turns.giveBack();
    turns.giveBack();
    EXPECT_EQ(turns.take(1), Answer::Taken);
    EXPECT_EQ(turns.take(2), Answer::Taken) << "the share may change";
}

TEST(AgentTurns, OnceOneHasWaitedInVainNobodyWaits) {
    AgentTurns turns(100ms);
    turns.take(1);
    turns.take(1);
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 1000; ++i) EXPECT_EQ(turns.take(1), Answer::Refused);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 50s) << "of the 100 that waiting would take";
}

// A turn that comes back late, and another one, must not keep those waiting that hold
// slapd's last threads.
TEST(AgentTurns, NobodyWaitsLongerBecauseTurnsComeBack) {
    AgentTurns turns(1s);
    turns.take(1);
    auto first = std::async(std::launch::async, [&] { return turns.take(1); });
    auto second = std::async(std::launch::async, [&] { return turns.take(1); });
    while (turns.waiting() != 2) std::this_thread::yield();
    turns.giveBack();
    std::multiset<Answer> answers = {first.get(), second.get()};
    EXPECT_EQ(answers.count(Answer::Taken), 1U);
    EXPECT_EQ(answers.count(Answer::FirstRefused), 1U);
}

TEST(AgentTurns, ARequestWaitsForItsTurn) {
    AgentTurns turns(24h);
    turns.take(1);
    auto second = std::async(std::launch::async, [&] { return turns.take(1); });
    while (turns.waiting() != 1) std::this_thread::yield();
    EXPECT_EQ(turns.take(2), Answer::Taken) << "of two, one is free";
    turns.giveBack();
    EXPECT_EQ(second.get(), Answer::Taken);
}

TEST(AgentTurns, TheOneThatHasWaitedLongestIsNext) {
    AgentTurns turns(24h);
    turns.take(1);
    std::mutex mutex;
    std::vector<int> order;
    std::vector<std::future<void>> all;
    for (int i = 0; i < 8; ++i) {
        all.push_back(std::async(std::launch::async, [&, i] {
            turns.take(1);
            const std::lock_guard guard(mutex);
            order.push_back(i);
        }));
        while (turns.waiting() != static_cast<std::size_t>(i) + 1) std::this_thread::yield();
    }
    for (int i = 0; i < 8; ++i) {
        turns.giveBack();
        all[static_cast<std::size_t>(i)].wait();
    }
    EXPECT_THAT(order, testing::ElementsAre(0, 1, 2, 3, 4, 5, 6, 7));
}

}  // namespace
