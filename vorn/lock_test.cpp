// SPDX-License-Identifier: Apache-2.0
#include "vorn/lock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <future>
#include <list>
#include <thread>
#include <vector>

namespace vorn {

struct ReaderWriterLockInspector {
    static std::size_t waiting(ReaderWriterLock& lock) {
        const std::lock_guard guard(lock.m_mutex);
        return lock.m_numWritersWaiting + lock.m_numReadersWaitingForUpgrade + lock.m_numReadersWaiting;
    }
};

namespace {

using namespace std::chrono_literals;

constexpr auto kPatience = 20s;          // for what must happen
constexpr auto kLongEnoughToSee = 50ms;  // for what must not

// Runs one request for a lock, which may have to wait, in a thread of its own,
// and then the steps of that thread one after the other.
class Requester {
  public:
    explicit Requester(std::atomic<std::size_t>& unfinished)
        : m_unfinished(unfinished), m_thread([this] { run(); }) {}
    ~Requester() {
        m_steps.put(nullptr);
        m_thread.join();
    }

    std::future<void> asks(std::function<void()> step) {
        auto task = std::make_shared<std::packaged_task<void()>>(std::move(step));
        auto done = task->get_future();
        ++m_unfinished;
        m_steps.put([this, task] {
            (*task)();
            --m_unfinished;
        });
        return done;
    }

    void does(std::function<void()> step) {
        ASSERT_EQ(asks(std::move(step)).wait_for(kPatience), std::future_status::ready);
    }

  private:
    class Queue {
      public:
        void put(std::function<void()> step) {
            const std::lock_guard guard(m_mutex);
            m_steps.push_back(std::move(step));
            m_filled.notify_one();
        }
        std::function<void()> take() {
            std::unique_lock guard(m_mutex);
            m_filled.wait(guard, [this] { return !m_steps.empty(); });
            auto step = std::move(m_steps.front());
            m_steps.pop_front();
            return step;
        }

      private:
        std::mutex m_mutex;
        std::condition_variable m_filled;
        std::list<std::function<void()>> m_steps;
    };

    void run() {
        while (auto step = m_steps.take()) step();
    }

    std::atomic<std::size_t>& m_unfinished;  // steps, of all requesters
    Queue m_steps;
    std::thread m_thread;
};

bool granted(const std::future<void>& request) {
    return request.wait_for(kPatience) == std::future_status::ready;
}

class ReaderWriterLockTest : public testing::Test {
  protected:
    std::function<void()> read = [this] { m_lock.getReadLock(); };
    std::function<void()> releaseRead = [this] { m_lock.releaseReadLock(); };
    std::function<void()> write = [this] { m_lock.getWriteLock(); };
    std::function<void()> releaseWrite = [this] { m_lock.releaseWriteLock(); };
    std::function<void()> upgrade = [this] { m_lock.upgradeToWriterLock(); };

    // Whether the request has to wait. Looks only once every unfinished step is
    // counted among those that wait, so that requests come in the test's order.
    bool waits(const std::future<void>& request) {
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        while (ReaderWriterLockInspector::waiting(m_lock) != m_unfinished) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            std::this_thread::yield();
        }
        return request.wait_for(kLongEnoughToSee) == std::future_status::timeout;
    }

    ReaderWriterLock m_lock;
    std::atomic<std::size_t> m_unfinished = 0;
    Requester a{m_unfinished}, b{m_unfinished}, c{m_unfinished}, d{m_unfinished};
};

TEST_F(ReaderWriterLockTest, ReadersShare) {
    a.does(read);
    b.does(read);
    a.does(releaseRead);
    b.does(releaseRead);
}

TEST_F(ReaderWriterLockTest, AWriterIsAlone) {
    a.does(write);
    auto reader = b.asks(read);
    auto writer = c.asks(write);
    EXPECT_TRUE(waits(reader));
    EXPECT_TRUE(waits(writer));
    a.does(releaseWrite);
    ASSERT_TRUE(granted(writer)) << "the writer goes before the reader";
    EXPECT_TRUE(waits(reader));
    c.does(releaseWrite);
    ASSERT_TRUE(granted(reader));
    b.does(releaseRead);
}

TEST_F(ReaderWriterLockTest, AWriterWaitsForTheLastReader) {
    a.does(read);
    b.does(read);
    auto writer = c.asks(write);
    a.does(releaseRead);
    EXPECT_TRUE(waits(writer));
    b.does(releaseRead);
    ASSERT_TRUE(granted(writer));
    c.does(releaseWrite);
}

TEST_F(ReaderWriterLockTest, NewReadersWaitBehindAWaitingWriter) {
    a.does(read);
    auto writer = b.asks(write);
    EXPECT_TRUE(waits(writer));
    auto reader = c.asks(read);
    EXPECT_TRUE(waits(reader));
    a.does(releaseRead);
    ASSERT_TRUE(granted(writer));
    b.does(releaseWrite);
    ASSERT_TRUE(granted(reader));
    c.does(releaseRead);
}

TEST_F(ReaderWriterLockTest, AThreadThatReadsGetsAnotherReadLockAtOnce) {
    a.does(read);
    auto writer = b.asks(write);
    EXPECT_TRUE(waits(writer));
    a.does(read);
    a.does(releaseRead);
    EXPECT_TRUE(waits(writer)) << "each read lock is released apart";
    a.does(releaseRead);
    ASSERT_TRUE(granted(writer));
    b.does(releaseWrite);
}

TEST_F(ReaderWriterLockTest, TheOnlyReaderUpgradesAtOnce) {
    a.does(read);
    a.does(upgrade);
    a.does([this] {
        EXPECT_TRUE(m_lock.holdsWriterLock());
        EXPECT_FALSE(m_lock.holdsReaderLock()) << "the read lock became the write lock";
    });
    auto reader = b.asks(read);
    EXPECT_TRUE(waits(reader));
    a.does(releaseWrite);
    ASSERT_TRUE(granted(reader));
    b.does(releaseRead);
}

TEST_F(ReaderWriterLockTest, AnUpgradeWaitsForPlainReaders) {
    a.does(read);
    b.does(read);
    auto upgrader = a.asks(upgrade);
    EXPECT_TRUE(waits(upgrader));
    b.does(read);
    b.does(releaseRead);
    EXPECT_TRUE(waits(upgrader));
    b.does(releaseRead);
    ASSERT_TRUE(granted(upgrader));
    a.does(releaseWrite);
}

TEST_F(ReaderWriterLockTest, NewReadersAndWritersWaitBehindAWaitingUpgrade) {
    a.does(read);
    b.does(read);
    auto upgrader = a.asks(upgrade);
    EXPECT_TRUE(waits(upgrader));
    auto reader = c.asks(read);
    auto writer = d.asks(write);
    EXPECT_TRUE(waits(reader));
    EXPECT_TRUE(waits(writer));
    b.does(releaseRead);
    ASSERT_TRUE(granted(upgrader));
    EXPECT_TRUE(waits(reader));
    EXPECT_TRUE(waits(writer));
    a.does(releaseWrite);
    ASSERT_TRUE(granted(writer));
    d.does(releaseWrite);
    ASSERT_TRUE(granted(reader));
    c.does(releaseRead);
}

// The one that is let through first is any of them.
TEST_F(ReaderWriterLockTest, SeveralUpgradersGoOneAfterTheOtherBeforeAnyWriter) {
    a.does(read);
    b.does(read);
    c.does(read);
    auto first = a.asks(upgrade);
    EXPECT_TRUE(waits(first));
    auto writer = d.asks(write);
    EXPECT_TRUE(waits(writer));
    std::atomic<int> inside = 0;
    std::atomic<int> through = 0;
    const auto passThrough = [&] {
        m_lock.upgradeToWriterLock();
        EXPECT_EQ(++inside, 1);
        EXPECT_TRUE(m_lock.holdsWriterLock());
        ++through;
        --inside;
        m_lock.releaseWriteLock();
    };
    auto second = b.asks(passThrough);
    EXPECT_TRUE(waits(second));
    EXPECT_TRUE(waits(first)) << "c still reads";
    auto third = c.asks(passThrough);
    ASSERT_TRUE(granted(first));
    a.does([&] { EXPECT_EQ(inside, 0); });
    EXPECT_TRUE(waits(writer));
    a.does(releaseWrite);
    ASSERT_TRUE(granted(second));
    ASSERT_TRUE(granted(third));
    EXPECT_EQ(through, 2);
    ASSERT_TRUE(granted(writer));
    d.does(releaseWrite);
}

TEST_F(ReaderWriterLockTest, TheOtherUpgradersWaitWhileOneWrites) {
    a.does(read);
    b.does(read);
    auto first = a.asks(upgrade);
    EXPECT_TRUE(waits(first));
    // The last reader finds that everybody waits for upgrade, and goes through.
    b.does(upgrade);
    EXPECT_TRUE(waits(first));
    b.does(releaseWrite);
    ASSERT_TRUE(granted(first));
    a.does(releaseWrite);
    m_lock.getWriteLock();
    m_lock.releaseWriteLock();
}

TEST_F(ReaderWriterLockTest, KnowsWhatTheCallingThreadHolds) {
    EXPECT_FALSE(m_lock.holdsReaderLock());
    EXPECT_FALSE(m_lock.holdsWriterLock());
    a.does(read);
    EXPECT_FALSE(m_lock.holdsReaderLock()) << "another thread's lock";
    a.does([this] { EXPECT_TRUE(m_lock.holdsReaderLock()); });
    a.does(releaseRead);
    a.does([this] { EXPECT_FALSE(m_lock.holdsReaderLock()); });
    a.does(write);
    EXPECT_FALSE(m_lock.holdsWriterLock()) << "another thread's lock";
    a.does([this] { EXPECT_TRUE(m_lock.holdsWriterLock()); });
    a.does(releaseWrite);
    a.does([this] { EXPECT_FALSE(m_lock.holdsWriterLock()); });
}

TEST_F(ReaderWriterLockTest, ScopesReleaseWhatTheyHold) {
    {
        const ReaderLock outer(m_lock);
        { const ReaderLock inner(m_lock); }
        EXPECT_TRUE(m_lock.holdsReaderLock());
        a.does(read);
        a.does(releaseRead);
    }
    {
        const ReaderLock upgraded(m_lock);
        m_lock.upgradeToWriterLock();
        EXPECT_TRUE(m_lock.holdsWriterLock());
    }
    { const WriterLock writer(m_lock); }
    a.does(write);
    a.does(releaseWrite);
}

// Counts what passes through the overridable bookkeeping.
class CountingLock : public ReaderWriterLock {
  public:
    int balance = 0;
    int calls = 0;

  protected:
    void decrReaderCount() override {
        ReaderWriterLock::decrReaderCount();
        --balance;
        ++calls;
    }
    void incrReaderCount() override {
        ReaderWriterLock::incrReaderCount();
        ++balance;
        ++calls;
    }
};

TEST(ReaderWriterLock, BookkeepingCanBeOverridden) {
    CountingLock lock;
    lock.getReadLock();
    lock.getReadLock();
    EXPECT_EQ(lock.balance, 2);
    lock.releaseReadLock();
    lock.upgradeToWriterLock();
    EXPECT_EQ(lock.balance, 0) << "an upgrade gives the read lock back";
    EXPECT_EQ(lock.calls, 4);
    lock.releaseWriteLock();
}

constexpr const char* kNotIdle =
    "^m_state == UNLOCKED && m_numReadersWithLocks == 0 && m_numWritersWaiting == 0 && "
    "m_numReadersWaitingForUpgrade == 0\n$";

template <typename Misuse>
void expectDeath(Misuse misuse, const char* text) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            // On the heap, so that no destructor of the test's own gets in the way.
            misuse(new ReaderWriterLock);
            std::fputs("survived\n", stderr);
        },
        testing::KilledBySignal(SIGABRT), text);
}

TEST(ReaderWriterLockMisuse, DestroyedWhileRead) {
    expectDeath([](auto* lock) { lock->getReadLock(), delete lock; }, kNotIdle);
}

TEST(ReaderWriterLockMisuse, DestroyedWhileWritten) {
    expectDeath([](auto* lock) { lock->getWriteLock(), delete lock; }, kNotIdle);
}

TEST(ReaderWriterLockMisuse, ReadLockReleasedTwice) {
    expectDeath([](auto* lock) { lock->getReadLock(), lock->releaseReadLock(), lock->releaseReadLock(); },
                "^the thread holds a read lock\n$");
}

TEST(ReaderWriterLockMisuse, AnotherThreadsReadLockReleased) {
    expectDeath(
        [](auto* lock) {
            std::thread([lock] { lock->getReadLock(); }).join();
            // A new thread may get the ended one's id; this one cannot.
            lock->releaseReadLock();
        },
        "^the thread holds a read lock\n$");
}

TEST(ReaderWriterLockMisuse, WriteLockReleasedByAReader) {
    expectDeath([](auto* lock) { lock->getReadLock(), lock->releaseWriteLock(); },
                "^holdsWriterLock\\(\\)\n$");
}

TEST(ReaderWriterLockMisuse, UpgradeOfNothing) {
    expectDeath([](auto* lock) { lock->upgradeToWriterLock(); }, "^holdsReaderLock\\(\\)\n$");
}

TEST(ReaderWriterLockMisuse, UpgradeWithTwoReadLocks) {
    expectDeath([](auto* lock) { lock->getReadLock(), lock->getReadLock(), lock->upgradeToWriterLock(); },
                "^only one read lock is held at an upgrade\n$");
}

TEST(ReaderWriterLockMisuse, WriteLockAskedForByAReader) {
    expectDeath([](auto* lock) { lock->getReadLock(), lock->getWriteLock(); }, "^!holdsReaderLock\\(\\)\n$");
}

TEST(ReaderWriterLockMisuse, AnyLockAskedForByTheWriter) {
    expectDeath([](auto* lock) { lock->getWriteLock(), lock->getReadLock(); }, "^!holdsWriterLock\\(\\)\n$");
    expectDeath([](auto* lock) { lock->getWriteLock(), lock->getWriteLock(); }, "^!holdsWriterLock\\(\\)\n$");
}

// Two plain numbers that are only ever changed together, and under the lock.
struct Pair {
    ReaderWriterLock lock;
    long first = 0;
    long second = 0;

    void add() {
        ++first;
        std::this_thread::yield();
        ++second;
    }
};

// What one thread did, and what it saw that nobody should.
struct Tally {
    long added = 0;
    long torn = 0;
};

void oneRound(Pair& pair, Tally& tally, int kind) {
    if (kind == 0) {
        const WriterLock writer(pair.lock);
        pair.add();
        ++tally.added;
        return;
    }
    const ReaderLock reader(pair.lock);
    if (pair.first != pair.second) ++tally.torn;
    if (kind == 1) {
        const ReaderLock again(pair.lock);
        if (pair.first != pair.second) ++tally.torn;
        return;
    }
    if (kind == 2) {
        pair.lock.upgradeToWriterLock();
        pair.add();
        ++tally.added;
    }
}

TEST(ReaderWriterLock, EightThreadsOfReadersWritersAndUpgradersLoseNothing) {
    Pair pair;
    std::vector<Tally> tallies(8);
    std::vector<std::thread> threads;
    const auto end = std::chrono::steady_clock::now() + 1500ms;
    for (std::size_t i = 0; i < tallies.size(); ++i) {
        threads.emplace_back([&, i] {
            for (std::size_t n = i; std::chrono::steady_clock::now() < end; ++n) {
                oneRound(pair, tallies[i], static_cast<int>(n * 7 % 4));
            }
        });
    }
    long added = 0;
    for (std::size_t i = 0; i < tallies.size(); ++i) {
        threads[i].join();
        added += tallies[i].added;
        EXPECT_EQ(tallies[i].torn, 0);
        EXPECT_GT(tallies[i].added, 0) << "a thread was kept out all the time";
    }
    EXPECT_EQ(pair.first, added);
    EXPECT_EQ(pair.second, added);
}

TEST(ReaderWriterLockDeathTest, WhoHoldsALockMustNotWait) {
    ReaderWriterLock first;
    ReaderWriterLock second;
    vorn_assert_no_lock_held();
    const char* const said = "no lock is held across what may wait";
    EXPECT_DEATH((ReaderLock(first), vorn_assert_no_lock_held()), said);
    {
        const ReaderLock reader(first);
        EXPECT_DEATH(vorn_assert_no_lock_held(), said);
        first.upgradeToWriterLock();
        EXPECT_DEATH(vorn_assert_no_lock_held(), said);
        { const WriterLock writer(second); }
        EXPECT_DEATH(vorn_assert_no_lock_held(), said) << "one of two was released";
        std::thread([] { vorn_assert_no_lock_held(); }).join();  // another thread's are its own
    }
    vorn_assert_no_lock_held();
}

}  // namespace
}  // namespace vorn
