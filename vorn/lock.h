// SPDX-License-Identifier: Apache-2.0
// Mutual exclusion.
#pragma once

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <list>
#include <mutex>

// Ends the process when the calling thread holds a ReaderWriterLock: for what may wait
// for somebody else, such as a peer. With C linkage and exported, so that a library
// beside the one with the locks can ask for it by name.
extern "C" __attribute__((visibility("default"))) void vorn_assert_no_lock_held();

namespace vorn {

// A mutex, and the same under the name that members which guard data carry.
using Mutex = std::mutex;
using Lock = std::mutex;

// Ends the process after writing the failed assertion's text to standard error.
[[noreturn]] void assertionFailed(const char* text);

// A reader/writer lock with upgrade.
//
// Readers share, a writer is alone. Waiting writers go before new readers, save
// a thread that already holds a read lock, which gets another one at once. A
// thread may hold several read locks; each is released apart. The write side is
// not recursive.
//
// upgradeToWriterLock turns the caller's one read lock into the write lock. When
// all remaining readers wait for the same, one of them is let through and the
// others follow after it has released: so whoever upgrades looks again at what it
// had read. The lock is then released with releaseWriteLock.
//
// Misuse ends the process with the assertion's text on standard error:
// destroying a lock that is not idle, releasing or upgrading a lock that the
// thread does not hold, and asking for what the thread's own locks would keep it
// from for ever (the write lock while it reads, any lock while it writes, an
// upgrade with a second read lock).
class ReaderWriterLock {
  public:
    ReaderWriterLock() = default;
    ReaderWriterLock(const ReaderWriterLock&) = delete;
    ReaderWriterLock& operator=(const ReaderWriterLock&) = delete;

    void getReadLock();
    void releaseReadLock();
    void getWriteLock();
    void releaseWriteLock();
    void upgradeToWriterLock();

    // For the calling thread.
    virtual bool holdsReaderLock();
    virtual bool holdsWriterLock();

  protected:
    // Bookkeeping of the calling thread's read locks; m_mutex is held.
    virtual void decrReaderCount();
    virtual void incrReaderCount();

  public:
    virtual ~ReaderWriterLock();

  private:
    friend struct ReaderWriterLockInspector;  // lets tests see who waits
    enum State { UNLOCKED, READING, WRITING };

    bool readerMayEnter() const { return m_state != WRITING && !anyoneGoesBeforeReaders(); }
    bool writerMayEnter() const { return m_state == UNLOCKED; }
    bool upgraderMayEnter() const;
    bool anyoneGoesBeforeReaders() const;
    std::size_t readLocksOfThisThread() const;
    void waitToRead(std::unique_lock<Mutex>& guard);
    void waitToWrite(std::unique_lock<Mutex>& guard);
    void waitToUpgrade(std::unique_lock<Mutex>& guard);
    void beginWriting();
    void wakeWhoMayEnter();

    Mutex m_mutex;
    State m_state = UNLOCKED;
    std::size_t m_numReadersWithLocks = 0;
    std::size_t m_numWritersWaiting = 0;
    std::size_t m_numReadersWaitingForUpgrade = 0;
    std::size_t m_numReadersWaiting = 0;
    std::list<pthread_t> m_readers;     // one element per read lock held, the newest first
    std::atomic<pthread_t> m_writer{};  // changed with m_mutex held; 0 when nobody writes
    std::list<pthread_t> m_spare;       // elements to use again, so that a read lock costs no allocation
    std::condition_variable m_readersMayEnter;
    std::condition_variable m_writerMayEnter;
    std::condition_variable m_upgraderMayEnter;
};

// Holds the read side for a scope; releases the write side instead when the
// holder has upgraded.
class ReaderLock {
  public:
    explicit ReaderLock(ReaderWriterLock& lock) : m_lock(lock) { m_lock.getReadLock(); }
    ~ReaderLock() { m_lock.holdsWriterLock() ? m_lock.releaseWriteLock() : m_lock.releaseReadLock(); }
    ReaderLock(const ReaderLock&) = delete;
    ReaderLock& operator=(const ReaderLock&) = delete;

  private:
    ReaderWriterLock& m_lock;
};

// Holds the write side for a scope.
class WriterLock {
  public:
    explicit WriterLock(ReaderWriterLock& lock) : m_lock(lock) { m_lock.getWriteLock(); }
    ~WriterLock() { m_lock.releaseWriteLock(); }
    WriterLock(const WriterLock&) = delete;
    WriterLock& operator=(const WriterLock&) = delete;

  private:
    ReaderWriterLock& m_lock;
};

}  // namespace vorn
