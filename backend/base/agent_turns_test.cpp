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
        std::size_t turns, patient;
    } const cases[] = {{1, 1, 0}, {2, 1, 0},   {3, 1, 0},    {4, 2, 0}, {5, 3, 0}, {8, 6, 0},
                       {9, 6, 1}, {16, 12, 2}, {64, 48, 14}, {0, 1, 0}, {-1, 1, 0}};
    for (const auto& one : cases) {
        const ThreadShare share = shareOf(one.threads, 0);
        EXPECT_EQ(share.turns, one.turns) << one.threads;
        EXPECT_EQ(share.patient, one.patient) << one.threads;
    }
}

TEST(AgentTurns, ThreadsThatSendAreNotThereToShare) {
    struct {
        int sending;
        std::size_t turns, patient;
    } const cases[] = {{1, 12, 1}, {2, 12, 0}, {3, 11, 0}, {13, 1, 0}, {16, 1, 0}, {20, 1, 0}};
    for (const auto& one : cases) {
        const ThreadShare share = shareOf(16, one.sending);
        EXPECT_EQ(share.turns, one.turns) << one.sending;
        EXPECT_EQ(share.patient, one.patient) << one.sending;
    }
}

TEST(AgentTurns, WhoComesBeyondThemIsTurnedAwayUntilOneIsFree) {
    AgentTurns turns(1ms, 1ms);
    EXPECT_EQ(turns.take({2, 2}), Answer::Taken);
    EXPECT_EQ(turns.take({2, 2}), Answer::Taken);
    EXPECT_EQ(turns.take({2, 2}), Answer::FirstRefused);
    EXPECT_EQ(turns.take({2, 2}), Answer::Refused) << "is told once";
    turns.giveBack();
    EXPECT_EQ(turns.take({2, 2}), Answer::Taken);
    EXPECT_EQ(turns.take({2, 2}), Answer::FirstRefused) << "another time";
    turns.giveBack();
    turns.giveBack();
    EXPECT_EQ(turns.take({1, 2}), Answer::Taken);
    EXPECT_EQ(turns.take({2, 2}), Answer::Taken) << "the share may change";
}

TEST(AgentTurns, OnceOneHasWaitedInVainNobodyWaitsInTheLastThreads) {
    AgentTurns turns(24h, 100ms);
    turns.take({1, 0});
    turns.take({1, 0});
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 1000; ++i) EXPECT_EQ(turns.take({1, 0}), Answer::Refused);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 50s) << "of the 100 that waiting would take";
}

// A turn that comes back late, and another one, must not keep those waiting that hold
// slapd's last threads.
TEST(AgentTurns, NobodyWaitsLongerBecauseTurnsComeBack) {
    AgentTurns turns(1s, 24h);
    turns.take({1, 2});
    auto first = std::async(std::launch::async, [&] { return turns.take({1, 2}); });
    auto second = std::async(std::launch::async, [&] { return turns.take({1, 2}); });
    while (turns.waiting() != 2) std::this_thread::yield();
    turns.giveBack();
    std::multiset<Answer> answers = {first.get(), second.get()};
    EXPECT_EQ(answers.count(Answer::Taken), 1U);
    EXPECT_EQ(answers.count(Answer::FirstRefused), 1U);
}

// The last threads are those in which slapd accepts connections.
TEST(AgentTurns, InOneOfTheLastThreadsARequestWaitsForAShortTimeOnly) {
    AgentTurns turns(24h, 1ms);
    turns.take({1, 1});
    auto patient = std::async(std::launch::async, [&] { return turns.take({1, 1}); });
    while (turns.waiting() != 1) std::this_thread::yield();
    EXPECT_EQ(turns.take({1, 1}), Answer::FirstRefused);
    EXPECT_EQ(turns.waiting(), 1U);
    turns.giveBack();
    EXPECT_EQ(patient.get(), Answer::Taken) << "has kept its place";
}

TEST(AgentTurns, WhereThreadsAreLeftARequestWaitsAlthoughThereIsTooMuchToDo) {
    AgentTurns turns(24h, 1ms);
    turns.take({1, 0});
    EXPECT_EQ(turns.take({1, 0}), Answer::FirstRefused);
    auto patient = std::async(std::launch::async, [&] { return turns.take({1, 1}); });
    while (turns.waiting() != 1) std::this_thread::yield();
    turns.giveBack();
    EXPECT_EQ(patient.get(), Answer::Taken);
}

// Gives the one turn that is taken to a request that has waited for so long, or longer.
void handOn(AgentTurns* turns, std::chrono::milliseconds waited) {
    auto next = std::async(std::launch::async, [&] { return turns->take({1, 1}); });
    while (turns->waiting() != 1) std::this_thread::yield();
    const auto end = std::chrono::steady_clock::now() + waited;
    while (std::chrono::steady_clock::now() < end) std::this_thread::yield();
    turns->giveBack();
    EXPECT_EQ(next.get(), Answer::Taken);
}

TEST(AgentTurns, ATurnThatComesSoonEndsTheRefusals) {
    AgentTurns turns(24h, 80ms);
    turns.take({1, 0});
    EXPECT_EQ(turns.take({1, 0}), Answer::FirstRefused);
    Answer last = Answer::Refused;
    for (int tries = 0; tries < 1000 && last == Answer::Refused; ++tries) {
        handOn(&turns, 0ms);
        last = turns.take({1, 0});
    }
    EXPECT_EQ(last, Answer::FirstRefused) << "after it has waited";
}

TEST(AgentTurns, ATurnThatComesLateDoesNot) {
    AgentTurns turns(24h, 1ms);
    turns.take({1, 0});
    EXPECT_EQ(turns.take({1, 0}), Answer::FirstRefused);
    handOn(&turns, 1ms);
    EXPECT_EQ(turns.take({1, 0}), Answer::Refused);
}

TEST(AgentTurns, ARequestWaitsForItsTurn) {
    AgentTurns turns(24h, 24h);
    turns.take({1, 2});
    auto second = std::async(std::launch::async, [&] { return turns.take({1, 2}); });
    while (turns.waiting() != 1) std::this_thread::yield();
    EXPECT_EQ(turns.take({2, 2}), Answer::Taken) << "of two, one is free";
    turns.giveBack();
    EXPECT_EQ(second.get(), Answer::Taken);
}

TEST(AgentTurns, TheOneThatHasWaitedLongestIsNext) {
    AgentTurns turns(24h, 24h);
    turns.take({1, 2});
    std::mutex mutex;
    std::vector<int> order;
    std::vector<std::future<void>> all;
    for (int i = 0; i < 8; ++i) {
        all.push_back(std::async(std::launch::async, [&, i] {
            turns.take({1, 2});
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
