// SPDX-License-Identifier: Apache-2.0
#include "vorn/lock.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

// The states, and what the counters mean in them:
//
//   UNLOCKED  nobody holds anything.
//   READING   m_numReadersWithLocks read locks are held, those of threads that
//             wait for upgrade among them.
//   WRITING   m_writer is alone. What m_numReadersWithLocks counts now are the
//             read locks of threads that wait for upgrade, nothing else: they
//             were there when the writer was let through as the first of them.
//
// So when a writer releases, the state is READING again if read locks are left,
// and since each of them waits for upgrade the next one goes through.

namespace vorn {
namespace {

using Guard = std::unique_lock<Mutex>;

// The calling thread's, on any lock and either side.
thread_local std::size_t locksHeld = 0;

// Written without stdio, whose own locks another thread may hold.
void writeToStandardError(const char* text, std::size_t length) {
    while (length > 0) {
        const ssize_t written = write(STDERR_FILENO, text, length);
        if (written <= 0) return;
        text += written;
        length -= static_cast<std::size_t>(written);
    }
}

}  // namespace

void assertionFailed(const char* text) {
    writeToStandardError(text, std::strlen(text));
    writeToStandardError("\n", 1);
    std::abort();
}

ReaderWriterLock::~ReaderWriterLock() {
    if (!(m_state == UNLOCKED && m_numReadersWithLocks == 0 && m_numWritersWaiting == 0 &&
          m_numReadersWaitingForUpgrade == 0)) {
        assertionFailed(
            "m_state == UNLOCKED && m_numReadersWithLocks == 0 && m_numWritersWaiting == 0 && "
            "m_numReadersWaitingForUpgrade == 0");
    }
}

bool ReaderWriterLock::upgraderMayEnter() const {
    return m_state == READING && m_numReadersWithLocks == m_numReadersWaitingForUpgrade;
}

bool ReaderWriterLock::anyoneGoesBeforeReaders() const {
    return m_numWritersWaiting != 0 || m_numReadersWaitingForUpgrade != 0;
}

std::size_t ReaderWriterLock::readLocksOfThisThread() const {
    return static_cast<std::size_t>(std::count(m_readers.begin(), m_readers.end(), pthread_self()));
}

void ReaderWriterLock::getReadLock() {
    Guard guard(m_mutex);
    if (!readerMayEnter()) waitToRead(guard);
    incrReaderCount();
    m_state = READING;
    ++locksHeld;
}

void ReaderWriterLock::waitToRead(Guard& guard) {
    if (holdsWriterLock()) assertionFailed("!holdsWriterLock()");
    // To let a reader wait for a writer that waits for this very reader would be
    // a deadlock.
    if (m_state == READING && readLocksOfThisThread() != 0) return;
    ++m_numReadersWaiting;
    m_readersMayEnter.wait(guard, [this] { return readerMayEnter(); });
    --m_numReadersWaiting;
}

void ReaderWriterLock::releaseReadLock() {
    const Guard guard(m_mutex);
    decrReaderCount();
    --locksHeld;
    if (m_numReadersWithLocks == 0) m_state = UNLOCKED;
    wakeWhoMayEnter();
}

void ReaderWriterLock::getWriteLock() {
    Guard guard(m_mutex);
    if (!writerMayEnter()) waitToWrite(guard);
    beginWriting();
    ++locksHeld;
}

void ReaderWriterLock::waitToWrite(Guard& guard) {
    if (holdsWriterLock()) assertionFailed("!holdsWriterLock()");
    if (readLocksOfThisThread() != 0) assertionFailed("!holdsReaderLock()");
    ++m_numWritersWaiting;
    m_writerMayEnter.wait(guard, [this] { return writerMayEnter(); });
    --m_numWritersWaiting;
}

void ReaderWriterLock::beginWriting() {
    m_state = WRITING;
    m_writer.store(pthread_self(), std::memory_order_relaxed);
}

void ReaderWriterLock::releaseWriteLock() {
    if (!holdsWriterLock()) assertionFailed("holdsWriterLock()");
    const Guard guard(m_mutex);
    --locksHeld;
    m_writer.store(pthread_t{}, std::memory_order_relaxed);
    m_state = m_numReadersWithLocks == 0 ? UNLOCKED : READING;
    wakeWhoMayEnter();
}

void ReaderWriterLock::upgradeToWriterLock() {
    Guard guard(m_mutex);
    ++m_numReadersWaitingForUpgrade;
    if (!upgraderMayEnter()) waitToUpgrade(guard);
    --m_numReadersWaitingForUpgrade;
    decrReaderCount();
    beginWriting();
}

void ReaderWriterLock::waitToUpgrade(Guard& guard) {
    const std::size_t held = readLocksOfThisThread();
    if (held == 0) assertionFailed("holdsReaderLock()");
    if (held > 1) assertionFailed("only one read lock is held at an upgrade");
    m_upgraderMayEnter.wait(guard, [this] { return upgraderMayEnter(); });
}

// One upgrader or one writer is enough: it wakes the next when it releases.
// Whoever is woken looks again, so nothing is lost when another thread got in
// first: that one wakes again at its own release.
void ReaderWriterLock::wakeWhoMayEnter() {
    if (m_numReadersWaitingForUpgrade != 0) {
        if (upgraderMayEnter()) m_upgraderMayEnter.notify_one();
    } else if (m_numWritersWaiting != 0) {
        if (writerMayEnter()) m_writerMayEnter.notify_one();
    } else if (m_numReadersWaiting != 0) {
        m_readersMayEnter.notify_all();
    }
}

bool ReaderWriterLock::holdsReaderLock() {
    const Guard guard(m_mutex);
    return readLocksOfThisThread() != 0;
}

// Only the writer itself ever stores its own id, so the look needs no lock: the
// answer for the calling thread cannot change under it.
bool ReaderWriterLock::holdsWriterLock() {
    return m_writer.load(std::memory_order_relaxed) == pthread_self();
}

void ReaderWriterLock::decrReaderCount() {
    const auto own = std::find(m_readers.begin(), m_readers.end(), pthread_self());
    if (own == m_readers.end()) assertionFailed("the thread holds a read lock");
    m_spare.splice(m_spare.begin(), m_readers, own);
    --m_numReadersWithLocks;
}

void ReaderWriterLock::incrReaderCount() {
    if (m_spare.empty()) {
        m_readers.push_front(pthread_self());
    } else {
        m_spare.front() = pthread_self();
        m_readers.splice(m_readers.begin(), m_spare, m_spare.begin());
    }
    ++m_numReadersWithLocks;
}

}  // namespace vorn

void vorn_assert_no_lock_held() {
    if (vorn::locksHeld != 0) vorn::assertionFailed("no lock is held across what may wait");
}
