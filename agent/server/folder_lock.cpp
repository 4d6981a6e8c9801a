// SPDX-License-Identifier: Apache-2.0
#include "agent/server/folder_lock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <thread>

#include "vorn/deadline.h"

namespace vexagent {
namespace {

constexpr std::chrono::milliseconds kPoll{5};

std::string folderOf(const std::string& path) {
    const std::string folder = std::filesystem::path(path).parent_path().string();
    return folder.empty() ? "." : folder;
}

// 0, or the error with which the lock cannot be had.
int lockWithin(int descriptor, std::chrono::milliseconds wait) {
    const vorn::Deadline deadline(vorn::systemSteadyClock(), wait);
    while (::flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
        if (errno == EINTR) continue;
        if (errno != EWOULDBLOCK || deadline.passed()) return errno;
        std::this_thread::sleep_for(kPoll);
    }
    return 0;
}

}  // namespace

FolderLock::FolderLock(const std::string& path, std::chrono::milliseconds wait)
    : m_descriptor(::open(folderOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (descriptor() < 0) throw LockError(path + ": " + std::strerror(errno));
    const int reason = lockWithin(descriptor(), wait);
    if (reason == 0) return;
    throw LockError(
        path + ": " +
        (reason == EWOULDBLOCK ? "another process keeps its folder locked" : std::strerror(reason)));
}

}  // namespace vexagent
