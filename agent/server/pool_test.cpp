// SPDX-License-Identifier: Apache-2.0
#include "agent/server/pool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <thread>
#include <vector>

namespace vexagent {
namespace {

constexpr std::chrono::seconds kSoon{20};

TEST(WorkerPool, SlowWorkLeavesAThreadForQuickWork) {
    for (const int threads : {2, 3}) {
        std::promise<void> gate;
        const std::shared_future<void> open = gate.get_future().share();
        WorkerPool pool(threads);
        for (int i = 0; i < 10; ++i) pool.post(Lane::Slow, [open] { open.wait(); });
        std::promise<void> quick;
        pool.post(Lane::Quick, [&quick] { quick.set_value(); });
        EXPECT_EQ(quick.get_future().wait_for(kSoon), std::future_status::ready);
        EXPECT_FALSE(pool.waitIdle(std::chrono::milliseconds(0)));
        gate.set_value();
        EXPECT_TRUE(pool.waitIdle(kSoon));
    }
}

TEST(WorkerPool, WhatWorkHoldsIsLetGoWithIt) {
    WorkerPool pool(1);
    auto held = std::make_shared<int>();
    const std::weak_ptr<int> watched = held;
    pool.post(Lane::Quick, [held = std::move(held)] {});
    EXPECT_TRUE(pool.waitIdle(kSoon));
    EXPECT_TRUE(watched.expired());
}

TEST(WorkerPool, OneThreadDoesBoth) {
    WorkerPool pool(1);
    std::promise<void> slow;
    std::promise<void> quick;
    pool.post(Lane::Slow, [&slow] { slow.set_value(); });
    pool.post(Lane::Quick, [&quick] { quick.set_value(); });
    EXPECT_EQ(slow.get_future().wait_for(kSoon), std::future_status::ready);
    EXPECT_EQ(quick.get_future().wait_for(kSoon), std::future_status::ready);
}

TEST(WorkerPool, DoesAllWorkAndKeepsTheSlowLaneNarrow) {
    constexpr int kThreads = 4;
    constexpr int kPosters = 3;
    constexpr int kEach = 2000;
    std::atomic<int> done{0};
    std::atomic<int> slow{0};
    std::atomic<int> slowest{0};
    WorkerPool pool(kThreads);
    std::vector<std::thread> posters;
    for (int poster = 0; poster < kPosters; ++poster)
        posters.emplace_back([&] {
            for (int i = 0; i < kEach; ++i) {
                pool.post(Lane::Quick, [&done] { ++done; });
                pool.post(Lane::Slow, [&] {
                    const int now = ++slow;
                    int most = slowest;
                    while (now > most && !slowest.compare_exchange_weak(most, now)) {
                    }
                    std::this_thread::yield();
                    --slow;
                    ++done;
                });
            }
        });
    for (std::thread& poster : posters) poster.join();
    EXPECT_TRUE(pool.waitIdle(kSoon));
    EXPECT_EQ(done, 2 * kPosters * kEach);
    EXPECT_LE(slowest, kThreads - 1);
}

TEST(WorkerPool, WorkThatEndsLetsAllThatMayRunRun) {
    // Two slow ones hold the lane, and two wait behind them; a quick one, once they
    // end, must not be all that is taken up.
    std::promise<void> first;
    std::promise<void> second;
    const std::shared_future<void> firstOpen = first.get_future().share();
    const std::shared_future<void> secondOpen = second.get_future().share();
    WorkerPool pool(3);
    for (int i = 0; i < 2; ++i) pool.post(Lane::Slow, [firstOpen] { firstOpen.wait(); });
    std::atomic<int> started{0};
    std::promise<void> both;
    for (int i = 0; i < 2; ++i)
        pool.post(Lane::Slow, [&, secondOpen] {
            if (++started == 2) both.set_value();
            secondOpen.wait();
        });
    std::promise<void> quick;
    pool.post(Lane::Quick, [&, secondOpen] {
        quick.set_value();
        secondOpen.wait();
    });
    EXPECT_EQ(quick.get_future().wait_for(kSoon), std::future_status::ready);
    first.set_value();
    EXPECT_EQ(both.get_future().wait_for(kSoon), std::future_status::ready);
    second.set_value();
    EXPECT_TRUE(pool.waitIdle(kSoon));
}

}  // namespace
}  // namespace vexagent
