// SPDX-License-Identifier: Apache-2.0
#include "vorn/thread.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>

#include "vorn/lock.h"
#include "vorn/logger.h"
#include "vorn/temporary_folder_testing.h"

namespace vorn {
namespace {

using namespace std::chrono_literals;
using Time = std::chrono::steady_clock;

constexpr auto kPatience = 20s;

template <typename Condition>
bool eventually(Condition condition) {
    for (const auto deadline = Time::now() + kPatience; Time::now() < deadline;) {
        if (condition()) return true;
        std::this_thread::yield();
    }
    return false;
}

// A thread's body with what it shares with the test.
struct Body {
    std::atomic<int> rounds = 0;
    std::atomic<bool> ended = false;
    ReaderWriterLock lock;

    static void* forever(void* self) {
        auto* body = static_cast<Body*>(self);
        struct AtEnd {
            Body* body;
            ~AtEnd() { body->ended = true; }
        };
        const AtEnd atEnd{body};  // NOLINT(clang-analyzer-deadcode.DeadStores): its end is what counts
        const WriterLock writer(body->lock);
        while (true) {
            ++body->rounds;
            Thread::sleep(0, 1, 0, 0);
        }
    }

    static void* longSleep(void* self) {
        ++static_cast<Body*>(self)->rounds;
        Thread::sleep(3600, 0, 0, 0);
        static_cast<Body*>(self)->ended = true;
        return nullptr;
    }

    static void* once(void* self) {
        ++static_cast<Body*>(self)->rounds;
        return nullptr;
    }
};

class ThreadTest : public testing::Test {
  protected:
    ThreadTest() { Thread::SetThreadsActive(true); }
};

TEST_F(ThreadTest, StartsOnlyOnceThreadsAreActive) {
    Body body;
    Thread thread;
    Thread::SetThreadsActive(false);
    EXPECT_THROW(thread.start("early", Body::once, &body, 50), std::logic_error);
    Thread::SetThreadsActive(true);
    thread.start("later", Body::once, &body, 50);
    thread.kill();
    EXPECT_EQ(body.rounds, 1);
}

TEST_F(ThreadTest, KillEndsTheThreadAtItsSleepAndReleasesItsLocks) {
    Body body;
    Thread thread;
    thread.start("forever", Body::forever, &body, 50);
    ASSERT_TRUE(eventually([&] { return body.rounds > 3; }));
    EXPECT_FALSE(body.ended);
    thread.kill();
    EXPECT_TRUE(body.ended);
    const ReaderLock reader(body.lock);  // would wait for ever
}

TEST_F(ThreadTest, KillWakesALongSleep) {
    Body body;
    Thread thread;
    thread.start("sleeper", Body::longSleep, &body, 50);
    ASSERT_TRUE(eventually([&] { return body.rounds == 1; }));
    const auto before = Time::now();
    thread.kill();
    EXPECT_LT(Time::now() - before, kPatience);
    EXPECT_FALSE(body.ended) << "the sleep does not return, it unwinds";
}

TEST_F(ThreadTest, DestructionKills) {
    Body body;
    {
        Thread thread;
        thread.start("forever", Body::forever, &body, 50);
        ASSERT_TRUE(eventually([&] { return body.rounds > 0; }));
    }
    EXPECT_TRUE(body.ended);
}

TEST_F(ThreadTest, KillOfWhatDoesNotRunDoesNothing) {
    Body body;
    Thread thread;
    thread.kill();
    thread.start("once", Body::once, &body, 50);
    ASSERT_TRUE(eventually([&] { return body.rounds == 1; }));
    thread.kill();
    thread.kill();
}

TEST_F(ThreadTest, StartsAgainAfterKillOnly) {
    Body body;
    Thread thread;
    thread.start("once", Body::once, &body, 50);
    EXPECT_THROW(thread.start("twice", Body::once, &body, 50), std::logic_error);
    thread.kill();
    thread.start("again", Body::once, &body, 50);
    thread.kill();
    EXPECT_EQ(body.rounds, 2);
}

TEST_F(ThreadTest, PriorityHasARange) {
    Thread thread;
    for (const int priority : {-1, 100}) {
        EXPECT_THROW(thread.start("x", Body::once, nullptr, priority), std::system_error) << priority;
    }
}

struct Seen {
    char name[16];
    int nice;
    bool termBlocked;
    bool usr1Blocked;

    static void* look(void* self) {
        auto* seen = static_cast<Seen*>(self);
        pthread_getname_np(pthread_self(), seen->name, sizeof seen->name);
        seen->nice = getpriority(PRIO_PROCESS, static_cast<id_t>(gettid()));
        sigset_t blocked;
        pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
        seen->termBlocked = sigismember(&blocked, SIGTERM) == 1;
        seen->usr1Blocked = sigismember(&blocked, SIGUSR1) == 1;
        return nullptr;
    }

    static Seen in(const char* threadName, int priority) {
        Seen seen = {};
        Thread thread;
        thread.start(threadName, look, &seen, priority);
        thread.kill();
        return seen;
    }
};

TEST_F(ThreadTest, ShowsItsNameCutToFifteenCharacters) {
    EXPECT_STREQ(Seen::in("checkSignalThread", 50).name, "checkSignalThre");
    EXPECT_STREQ(Seen::in("watcher", 50).name, "watcher");
}

TEST_F(ThreadTest, LessPriorityIsNicer) {
    const int own = getpriority(PRIO_PROCESS, 0);
    EXPECT_EQ(Seen::in("own", 50).nice, own);
    EXPECT_EQ(Seen::in("nicer", 25).nice, std::min(own + 10, 19));
    EXPECT_EQ(Seen::in("nicest", 0).nice, std::min(own + 20, 19));
    EXPECT_EQ(getpriority(PRIO_PROCESS, 0), own) << "the process itself stays as it was";
}

TEST_F(ThreadTest, RunsWithSignalsBlockedAndTheStarterKeepsItsOwn) {
    const Seen seen = Seen::in("signals", 50);
    EXPECT_TRUE(seen.termBlocked);
    EXPECT_TRUE(seen.usr1Blocked);
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGTERM), 0);
}

void* throwing(void*) {
    throw std::runtime_error("out of luck");
}
void* throwingInt(void*) {
    throw 7;
}
void* exiting(void*) {
    pthread_exit(nullptr);
}

void* catching(void* caught) {
    try {
        while (true) Thread::sleep(0, 1, 0, 0);
    } catch (const std::exception&) {
        *static_cast<bool*>(caught) = true;
    }
    return nullptr;
}

void runToItsEnd(const char* name, void* (*body)(void*), void* argument) {
    Thread thread;
    thread.start(name, body, argument, 50);
    thread.kill();
}

TEST_F(ThreadTest, AnExceptionEndsTheThreadAndIsLogged) {
    const test::TemporaryFolder folder;
    Properties settings;
    settings.parse("log.file = " + folder.file("log") + "\n", "t");
    Logger::ReconfigureLevels(settings);
    runToItsEnd("thrower", throwing, nullptr);
    runToItsEnd("odd", throwingInt, nullptr);
    runToItsEnd("exiter", exiting, nullptr);
    Logger::ReconfigureLevels(Properties());
    const std::string log = test::TemporaryFolder::read(folder.file("log"));
    EXPECT_NE(log.find(" thread thrower ended by an exception: out of luck\n"), std::string::npos) << log;
    EXPECT_NE(log.find(" thread odd ended by an exception: not a std::exception\n"), std::string::npos)
        << log;
    EXPECT_NE(log.find(" vorn.thread "), std::string::npos) << log;
    EXPECT_EQ(log.find("exiter"), std::string::npos) << log;
}

TEST_F(ThreadTest, ABodyMayCatchStandardExceptionsWithoutStoppingAKill) {
    bool caught = false;
    runToItsEnd("catcher", catching, &caught);
    EXPECT_FALSE(caught);
}

struct SelfDestroying {
    Thread* thread;
    std::atomic<bool> started = false;
    std::atomic<bool> done = false;

    static void* run(void* argument) {
        auto* self = static_cast<SelfDestroying*>(argument);
        while (!self->started) std::this_thread::yield();
        self->thread->kill();
        delete self->thread;
        self->done = true;
        return nullptr;
    }
};

TEST_F(ThreadTest, AThreadMayDestroyItsOwnObject) {
    static SelfDestroying self;
    self.thread = new Thread;
    self.thread->start("self", SelfDestroying::run, &self, 50);
    self.started = true;
    EXPECT_TRUE(eventually([] { return self.done.load(); }));
}

TEST_F(ThreadTest, SleepSumsItsArguments) {
    const auto before = Time::now();
    Thread::sleep(0, 10, 10'000, 10'000'000);
    EXPECT_GE(Time::now() - before, 30ms);
    const auto negative = Time::now();
    Thread::sleep(-3600, 0, 0, 0);
    Thread::sleep(0, 0, 0, 0);
    EXPECT_LT(Time::now() - negative, kPatience);
}

volatile std::sig_atomic_t received = 0;

void receive(int signal) {
    received = signal;
}

TEST(ConfigSignalHandler, InstallsAHandlerThatLetsSystemCallsGoOn) {
    struct sigaction before = {};
    sigaction(SIGUSR2, nullptr, &before);
    EXPECT_EQ(ConfigSignalHandler(SIGUSR2, receive), 0);
    raise(SIGUSR2);
    EXPECT_EQ(received, SIGUSR2);
    struct sigaction now = {};
    sigaction(SIGUSR2, &before, &now);
    EXPECT_EQ(now.sa_flags & SA_RESTART, SA_RESTART);
    EXPECT_EQ(now.sa_handler, &receive);
}

TEST(ConfigSignalHandler, RefusesWhatCannotBeHandled) {
    EXPECT_EQ(ConfigSignalHandler(SIGKILL, receive), EINVAL);
    EXPECT_EQ(ConfigSignalHandler(4711, receive), EINVAL);
}

}  // namespace
}  // namespace vorn
