// SPDX-License-Identifier: Apache-2.0
#include "vorn/secure_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <streambuf>

#include "vorn/descriptor.h"
#include "vorn/file_refusal.h"

namespace vorn {
namespace {

using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

struct SplitPath {
    std::string folder;
    std::string name;
};

SplitPath split(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) return {".", path};
    // Slashes at the folder's end would follow a symbolic link in its place.
    const std::size_t end = path.find_last_not_of('/', slash);
    return {end == std::string::npos ? "/" : path.substr(0, end + 1), path.substr(slash + 1)};
}

bool isFileName(const std::string& name) {
    return !name.empty() && name != "." && name != "..";
}

FileRefusal checkFolder(int folder) {
    struct stat status;
    if (fstat(folder, &status) != 0) return refusalFromErrno(errno);
    if (S_ISLNK(status.st_mode)) return FileRefusal::Symlink;
    if (!S_ISDIR(status.st_mode)) return FileRefusal::DoesNotExist;
    if (status.st_uid != 0 && status.st_uid != geteuid()) return FileRefusal::NotRootOwned;
    if ((status.st_mode & S_IWOTH) != 0) return FileRefusal::WorldWritable;
    if (faccessat(folder, ".", W_OK | X_OK, AT_EACCESS) != 0) return refusalFromErrno(errno);
    return FileRefusal::None;
}

FileRefusal checkName(int folder, const char* name) {
    struct stat status;
    if (fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT ? FileRefusal::None : refusalFromErrno(errno);
    }
    if (S_ISLNK(status.st_mode)) return FileRefusal::Symlink;
    if (!S_ISREG(status.st_mode)) return FileRefusal::NotRegular;
    return status.st_nlink > 1 ? FileRefusal::Hardlinks : FileRefusal::AlreadyExists;
}

// Opens a folder that passed its checks, for look-ups only.
FileRefusal openFolder(const std::string& path, Descriptor& folder) {
    // Not O_DIRECTORY: a symbolic link shall be told from a missing folder.
    folder = Descriptor(::open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    return folder.get() < 0 ? refusalFromErrno(errno) : checkFolder(folder.get());
}

// O_EXCL makes the file new whatever happened since the checks.
FileRefusal create(int folder, const char* name, mode_t mode, int flags, File& file) {
    constexpr int kNeeded = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    Descriptor opened(::openat(folder, name, kNeeded | (flags & ~O_ACCMODE), mode));
    if (opened.get() < 0) return refusalFromErrno(errno);
    if (fchmod(opened.get(), mode) == 0) file.reset(fdopen(opened.get(), "w"));
    if (file == nullptr) {
        const FileRefusal refusal = refusalFromErrno(errno);
        unlinkat(folder, name, 0);
        return refusal;
    }
    opened.release();
    return FileRefusal::None;
}

FileRefusal openForWriting(const std::string& path, mode_t mode, int flags, File& file) {
    const auto [folderPath, name] = split(path);
    Descriptor folder(-1);
    FileRefusal refusal = openFolder(folderPath, folder);
    if (refusal == FileRefusal::None && !isFileName(name)) refusal = FileRefusal::NotRegular;
    if (refusal == FileRefusal::None) refusal = checkName(folder.get(), name.c_str());
    if (refusal == FileRefusal::None) refusal = create(folder.get(), name.c_str(), mode, flags, file);
    return refusal;
}

}  // namespace

FileRefusal refusalFromErrno(int error) {
    switch (error) {
        case ENOENT:
        case ENOTDIR:
            return FileRefusal::DoesNotExist;
        case EACCES:
        case EPERM:
            return FileRefusal::NoPermission;
        case ELOOP:
            return FileRefusal::Symlink;
        case EEXIST:
            return FileRefusal::AlreadyExists;
        case EISDIR:
            return FileRefusal::NotRegular;
        case EBUSY:
        case ETXTBSY:
        case EROFS:
        case EAGAIN:
        case ENOSPC:
        case EDQUOT:
        case EMFILE:
        case ENFILE:
            return FileRefusal::Blocked;
        default:
            return FileRefusal::Other;
    }
}

const char* fileRefusalText(int reason) {
    switch (static_cast<FileRefusal>(reason)) {
        case FileRefusal::DoesNotExist:
            return " does not exist.";
        case FileRefusal::NotRootOwned:
            return " is not root owned.";
        case FileRefusal::WorldWritable:
            return " is world writable.";
        case FileRefusal::NoPermission:
            return " cannot be accessed (insufficient permission).";
        case FileRefusal::Symlink:
            return " is a symlink.";
        case FileRefusal::Hardlinks:
            return " has more than one hardlink.";
        case FileRefusal::AlreadyExists:
            return " already exists.";
        case FileRefusal::NotRegular:
            return " is not a regular file.";
        case FileRefusal::Blocked:
            return " access is blocked.";
        default:
            return " has other security issues.";
    }
}

std::FILE* SecureFOpenForWriting(const char* path, int mode, int flags, int* reason) {
    File file(nullptr, std::fclose);
    FileRefusal refusal = FileRefusal::DoesNotExist;
    if (path != nullptr) refusal = openForWriting(path, static_cast<mode_t>(mode) & 07777, flags, file);
    if (reason != nullptr) *reason = static_cast<int>(refusal);
    return file.release();
}

FileSecurityException FileSecurityException::refused(const char* path, int reason) {
    const std::string message = std::string(path != nullptr ? path : "") + fileRefusalText(reason);
    return FileSecurityException(message, "FileSecurityException", reason);
}

// Has no buffer of its own: the FILE has one.
class secure_ofstream::Buffer : public std::streambuf {
  public:
    explicit Buffer(std::FILE* file) : m_file(file) {}

    // Whether everything reached the file. Lets go of it: the owner may close it.
    bool close() {
        const bool good = m_file == nullptr || std::fflush(m_file) == 0;
        m_file = nullptr;
        return good;
    }

  protected:
    int_type overflow(int_type c) override {
        if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
        const bool written = m_file != nullptr && std::fputc(c, m_file) != EOF;
        return written ? c : traits_type::eof();
    }
    std::streamsize xsputn(const char* text, std::streamsize count) override {
        if (m_file == nullptr) return 0;
        return static_cast<std::streamsize>(std::fwrite(text, 1, static_cast<std::size_t>(count), m_file));
    }
    int sync() override { return m_file != nullptr && std::fflush(m_file) == 0 ? 0 : -1; }

  private:
    std::FILE* m_file;
};

secure_ofstream::secure_ofstream(std::FILE* file)
    : std::ostream(nullptr), m_buffer(std::make_unique<Buffer>(file)) {
    rdbuf(m_buffer.get());
}

secure_ofstream::~secure_ofstream() {
    m_buffer->close();
}

void secure_ofstream::close() {
    if (!m_buffer->close()) setstate(std::ios_base::failbit);
}

}  // namespace vorn
