#include "agent/pool.h"

#include <gtest/gtest.h>

#include <future>

namespace vexagent {
namespace {

constexpr std::chrono::seconds kSoon{20};

TEST(WorkerPool, SlowWorkLeavesAThreadForQuickWork) {
    std::promise<void> gate;
    const std::shared_future<void> open = gate.get_future().share();
    WorkerPool pool(3);
    for (int i = 0; i < 10; ++i) pool.post(Lane::Slow, [open] { open.wait(); });
    std::promise<void> quick;
    pool.post(Lane::Quick, [&quick] { quick.set_value(); });
    EXPECT_EQ(quick.get_future().wait_for(kSoon), std::future_status::ready);
    EXPECT_FALSE(pool.waitIdle(std::chrono::milliseconds(0)));
    gate.set_value();
    EXPECT_TRUE(pool.waitIdle(kSoon));
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

}  // namespace
}  // namespace vexagent
