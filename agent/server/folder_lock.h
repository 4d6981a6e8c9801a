// SPDX-License-Identifier: Apache-2.0
// One process at a time in a folder.
#pragma once

#include <chrono>
#include <stdexcept>
#include <string>

#include "vorn/descriptor.h"

namespace vexagent {

// A lock that cannot be had; what() is "PATH: reason".
class LockError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Keeps other holders, of this process too, away from the folder that path is in.
// It is the folder itself that is locked (flock), so no file is left behind, and
// the kernel lets go of it when the process ends.
class FolderLock {
  public:
    // Waits so long for another holder. Throws LockError.
    explicit FolderLock(const std::string& path, std::chrono::milliseconds wait = std::chrono::seconds(5));
    FolderLock(const FolderLock&) = delete;
    FolderLock& operator=(const FolderLock&) = delete;

    // The folder's descriptor.
    int descriptor() const { return m_descriptor.get(); }

  private:
    const vorn::Descriptor m_descriptor;
};

}  // namespace vexagent
