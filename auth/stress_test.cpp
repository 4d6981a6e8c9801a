// SPDX-License-Identifier: Apache-2.0
// Binds, closing connections and expiry from many threads at once; for the thread
// sanitizer most of all.
#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "auth/credentials.h"
#include "backend/base/settings.h"
#include "tests/standin/vex_standin.h"

#include "auth/bind.h"
#include "auth/binder.h"
#include "tests/standin/slapd_standin.h"

namespace {

using testing::IsEmpty;

std::atomic<std::time_t> theTime;

constexpr int kThreads = 8;
constexpr int kPeople = 5;
constexpr auto kDuration = std::chrono::milliseconds(1000);

std::string dnOf(int person) {
    return "CN=person" + std::to_string(person) + ",DC=x";
}

class Stress : public testing::Test {
  protected:
    void SetUp() override {
        theTime = 1000;
        gLogInterval = 5;
        standin::reset();
        standin::showPasswords(false);
        for (int i = 0; i < kPeople; ++i) standin::user(dnOf(i), "secret" + std::to_string(i));
        back_vex_creds = new CredManager([] { return theTime.load(); });
    }
    void TearDown() override {
        delete back_vex_creds;
        back_vex_creds = nullptr;
        vexFreeStringSet(gSupportedObjectAttrList.exchange(nullptr));
        gLogInterval = 0;
        EXPECT_THAT(standin::leaks(), IsEmpty());
        EXPECT_THAT(standin::failures(), IsEmpty());
        standin::reset();
    }

    // One connection's life: a right bind, sometimes a wrong one, the end.
    void connect(unsigned long id, int person) {
        standin::FakeConnection client(id);
        standin::FakeOperation operation(client);
        operation.bind(dnOf(person).c_str(), ("secret" + std::to_string(person)).c_str());
        if (binder.bind(operation.op(), operation.reply()) != 0) wrongAnswers++;
        if (id % 7 == 0) {
            standin::FakeOperation wrong(client);
            wrong.bind(dnOf(person).c_str(), "wrong");
            if (binder.bind(wrong.op(), wrong.reply()) != 49) wrongAnswers++;
            refused++;
        }
        bound++;
        back_vex_creds->delCreds(id);
    }

    void run(int thread) {
        const auto end = std::chrono::steady_clock::now() + kDuration;
        for (unsigned long i = 0; std::chrono::steady_clock::now() < end; ++i) {
            connect(static_cast<unsigned long>(thread) * 1000000 + i, static_cast<int>(i) % kPeople);
            if (i % 50 == 0) theTime += 100;  // three such steps, and what was cached has expired
            if (thread == 0 && i % 500 == 499) back_vex_creds->clearCreds();
            if (thread == 1 && i % 100 == 99) standin::forgetCalls();
        }
    }

    vorn::ReaderWriterLock lock;
    BindStatistics statistics{lock, [] { return theTime.load(); }};
    Binder binder{statistics, vorn::systemMicroseconds};
    std::atomic<unsigned> wrongAnswers{0}, bound{0}, refused{0};
};

TEST_F(Stress, EveryBindIsAnsweredRight) {
    std::vector<std::jthread> threads;
    for (int t = 0; t < kThreads; ++t) threads.emplace_back([this, t] { run(t); });
    threads.clear();
    EXPECT_EQ(wrongAnswers, 0u);
    EXPECT_GT(bound, 100u);
    const BindStatistics::Counters counters = statistics.counters();
    EXPECT_EQ(counters.total, bound + refused);
    EXPECT_EQ(counters.fromCache + counters.fromAgent, bound);
    EXPECT_GT(counters.fromCache, 0u);
    EXPECT_GT(counters.fromAgent, 0u);
}

}  // namespace
