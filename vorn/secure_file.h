// SPDX-License-Identifier: Apache-2.0
// Files that nobody else can have prepared.
#pragma once

#include <cstdio>
#include <memory>
#include <ostream>
#include <string>

#include "vorn/exception.h"

namespace vorn {

// Why a file is refused. The numbers are fixed: they travel in exceptions.
enum class FileRefusal {
    None = 0,
    DoesNotExist = 1,
    NotRootOwned = 2,   // the folder: neither root's nor this process's user's
    WorldWritable = 3,  // the folder, without the sticky bit or with it
    NoPermission = 4,
    Symlink = 5,
    Hardlinks = 6,
    Other = 7,
    AlreadyExists = 8,
    NotRegular = 9,
    Blocked = 10,  // EBUSY, ETXTBSY, EROFS and kin
};

// " already exists." and so on, beginning with a blank; any other number gives
// " has other security issues.".
const char* fileRefusalText(int reason);

// Creates a file for writing, with exactly this mode (the umask does not count),
// in a folder that is root's or this process's user's and that not everybody can
// write to. Refused, in the order of the checks: the folder (missing, itself a
// symbolic link, owner, world-writable, not accessible), then at the path a
// symbolic link, something that is not a regular file, a file with more than one
// hard link, and any file at all. Every check is made on the open folder and the
// file is created in that same folder, so nothing can be swapped between check
// and open. flags are further open(2) flags, 0 for none. On refusal the answer is
// null and *reason holds a FileRefusal, otherwise None; reason may be null.
std::FILE* SecureFOpenForWriting(const char* path, int mode, int flags, int* reason);

// A refused file. what() is the path and the reason's text, or the text alone
// without a path.
class FileSecurityException : public VORNException {
  public:
    FileSecurityException(const std::string& message, const std::string& className, int reason)
        : VORNException(message, className, reason) {}
    // From a path (may be null) and a reason.
    static FileSecurityException refused(const char* path, int reason);
};

// An output stream over an open FILE, which stays the caller's and must live until
// the stream is closed or gone, whichever is first; both flush. close() fails the
// stream when the file could not take everything; after it, writing fails.
class secure_ofstream : public std::ostream {
  public:
    explicit secure_ofstream(std::FILE* file);
    ~secure_ofstream() override;
    void close();

  private:
    class Buffer;
    std::unique_ptr<Buffer> m_buffer;
};

}  // namespace vorn
