// SPDX-License-Identifier: Apache-2.0
#include "vorn/own_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "vorn/descriptor.h"

namespace vorn {
namespace {

constexpr mode_t kOthers = 077;
constexpr std::size_t kLargestSecret = 65'536;

OwnFileError failed(const std::string& file) {
    return OwnFileError(file + ": " + std::strerror(errno));
}

}  // namespace

bool readOwnFile(const std::string& file, std::size_t most, Secret& content) {
    // Nobody waits for the other end of a pipe.
    const Descriptor descriptor(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (descriptor.get() < 0 && errno == ENOENT) return false;
    if (descriptor.get() < 0) throw failed(file);
    struct stat status {};
    if (::fstat(descriptor.get(), &status) != 0) throw failed(file);
    if (!S_ISREG(status.st_mode) || status.st_uid != ::geteuid() || (status.st_mode & kOthers) != 0)
        throw OwnFileError(file + ": is not a file of the agent's own with mode 0600");
    if (static_cast<std::size_t>(status.st_size) > most) throw OwnFileError(file + ": is too large");
    content.clear();
    content.resize(static_cast<std::size_t>(status.st_size));
    const ssize_t count = ::read(descriptor.get(), content.data(), content.size());
    if (count < 0) throw failed(file);
    content.resize(static_cast<std::size_t>(count));
    return true;
}

std::optional<Secret> readSecretLine(const std::string& file) {
    Secret content;
    if (!readOwnFile(file, kLargestSecret, content)) return std::nullopt;
    content.resize(std::min(content.text().find('\n'), content.size()));
    if (content.empty()) return std::nullopt;
    return content;
}

}  // namespace vorn
