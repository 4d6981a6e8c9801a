// SPDX-License-Identifier: Apache-2.0
#include "backend/base/agent_turns.h"

#include <gmock/gmock.h>

#include <future>
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

TEST(AgentTurns, WhileTheAgentAnswersNobodyWhoComesBeyondThemIsTurnedAway) {
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

TEST(AgentTurns, OnceItIsKnownNobodyWaitsAnyMore) {
    AgentTurns turns(300ms);
    turns.take(1);
    std::vector<std::future<Answer>> waiting;
    for (int i = 0; i < 4; ++i)
        waiting.push_back(std::async(std::launch::async, [&] { return turns.take(1); }));
    int first = 0;
    for (auto& one : waiting) {
        const Answer answer = one.get();
        EXPECT_NE(answer, Answer::Taken);
        if (answer == Answer::FirstRefused) ++first;
    }
    EXPECT_GE(first, 1);
    AgentTurns patient(24h);  // would not be through before the test's time is over
    patient.take(1);
    turns.giveBack();
    EXPECT_EQ(turns.take(1), Answer::Taken);
}

TEST(AgentTurns, WhileTheAgentAnswersARequestWaitsForItsTurn) {
    AgentTurns turns(24h);
    turns.take(1);
    auto second = std::async(std::launch::async, [&] { return turns.take(1); });
    auto third = std::async(std::launch::async, [&] { return turns.take(2); });
    EXPECT_EQ(third.get(), Answer::Taken) << "of two, one is free";
    turns.giveBack();
    turns.giveBack();
    EXPECT_EQ(second.get(), Answer::Taken);
}

}  // namespace
