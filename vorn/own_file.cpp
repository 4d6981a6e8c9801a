#include "vorn/own_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "vorn/descriptor.h"
#include "vorn/secret.h"

namespace vorn {
namespace {

constexpr mode_t kOthers = 077;
constexpr std::size_t kLargestSecret = 65'536;

OwnFileError failed(const std::string& file) {
    return OwnFileError(file + ": " + std::strerror(errno));
}

}  // namespace

bool readOwnFile(const std::string& file, std::size_t most, std::string& content) {
    // Nobody waits for the other end of a pipe.
    const Descriptor descriptor(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (descriptor.get() < 0 && errno == ENOENT) return false;
    if (descriptor.get() < 0) throw failed(file);
    struct stat status {};
    if (::fstat(descriptor.get(), &status) != 0) throw failed(file);
    if (!S_ISREG(status.st_mode) || status.st_uid != ::geteuid() || (status.st_mode & kOthers) != 0)
        throw OwnFileError(file + ": is not a file of the agent's own with mode 0600");
    if (static_cast<std::size_t>(status.st_size) > most) throw OwnFileError(file + ": is too large");
    content.assign(static_cast<std::size_t>(status.st_size), '\0');
    const ssize_t count = ::read(descriptor.get(), content.data(), content.size());
    if (count < 0) throw failed(file);
    content.resize(static_cast<std::size_t>(count));
    return true;
}

bool readSecretLine(const std::string& file, std::string& line) {
    std::string content;
    const bool isThere = readOwnFile(file, kLargestSecret, content);
    line.assign(content, 0, content.find('\n'));
    wipe(content);
    return isThere && !line.empty();
}

}  // namespace vorn
