// Mutual exclusion.
#pragma once

#include <pthread.h>

#include <condition_variable>
#include <cstddef>
#include <list>
#include <mutex>

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
// destroying a lock that is not idle, or releasing a lock that the thread does
// not hold.
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
    enum State { UNLOCKED, READING, WRITING };

    bool readerMayEnter() const;
    bool writerMayEnter() const;

    Mutex m_mutex;
    State m_state = UNLOCKED;
    std::size_t m_numReadersWithLocks = 0;
    std::size_t m_numWritersWaiting = 0;
    std::size_t m_numReadersWaitingForUpgrade = 0;
    std::size_t m_numReadersWaiting = 0;
    std::list<pthread_t> m_readers;  // one element per read lock held
    pthread_t m_writer{};
    std::condition_variable m_changed;
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
