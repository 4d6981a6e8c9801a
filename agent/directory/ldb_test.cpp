// SPDX-License-Identifier: Apache-2.0
#include "agent/directory/ldb.h"

#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <new>
#include <thread>
#include <vector>

namespace {

using namespace vexagent;

// What is first in a process is so only once: by itself, this test begins with LDB as
// the agent's threads find it when requests come at once.
TEST(Ldb, ContextsOfSeveralThreadsAreAllMade) {
    constexpr int kThreads = 8;
    std::barrier start(kThreads);
    std::atomic<int> made = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back([&] {
            start.arrive_and_wait();
            try {
                made += newLdb() != nullptr;
            } catch (const std::bad_alloc&) {
            }
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(made, kThreads);
}

}  // namespace
