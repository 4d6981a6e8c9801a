// SPDX-License-Identifier: Apache-2.0
#include "vorn/properties.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

#include "vorn/descriptor.h"
#include "vorn/properties_parser.h"

namespace vorn {
namespace {

// Far above any file that a person writes; keeps a wrong path, such as a device
// that never ends, from filling the memory.
constexpr std::size_t kMostBytes = std::size_t{16} << 20;

[[noreturn]] void fail(const std::string& fileName, int error) {
    throw PropertiesException(fileName + ": " + std::generic_category().message(error), error);
}

// Pipes and sockets are refused: to read one could wait for ever.
void checkKind(const std::string& fileName, int fd) {
    struct stat status;
    if (fstat(fd, &status) != 0) fail(fileName, errno);
    if (S_ISDIR(status.st_mode)) fail(fileName, EISDIR);
    if (!S_ISREG(status.st_mode) && !S_ISCHR(status.st_mode)) {
        throw PropertiesException(fileName + ": not a regular file", EINVAL);
    }
}

std::string readAll(const std::string& fileName, int fd) {
    std::string text;
    char chunk[16384];
    while (true) {
        const ssize_t count = ::read(fd, chunk, sizeof chunk);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) fail(fileName, errno);
        if (count == 0) return text;
        text.append(chunk, static_cast<std::size_t>(count));
        if (text.size() > kMostBytes) throw PropertiesException(fileName + ": larger than 16 MiB", EFBIG);
    }
}

}  // namespace

void Properties::load(const std::string& fileName, bool optional) {
    const Descriptor file(::open(fileName.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (file.get() < 0) {
        if (optional && errno == ENOENT) return;
        fail(fileName, errno);
    }
    checkKind(fileName, file.get());
    parse(readAll(fileName, file.get()), fileName);
}

void Properties::parse(std::string_view text, const std::string& origin) {
    // Made apart first, so that neither malformed text nor a lack of memory
    // leaves the table half filled.
    Map entries;
    Map origins;
    for (PropertiesEntry& entry : parseProperties(text, origin)) {
        origins.insert_or_assign(entry.key, origin + ":" + std::to_string(entry.line));
        entries.insert_or_assign(std::move(entry.key), std::move(entry.value));
    }
    const std::lock_guard guard(m_lock);
    // New entries go before old ones of the same key. Entries keep their place in
    // memory when they change tables.
    Index index;
    for (const Map* table : {&entries, &m_entries}) {
        for (const auto& [key, value] : *table) index.emplace(key, &value);
    }
    entries.merge(m_entries);
    origins.merge(m_origins);
    m_entries.swap(entries);
    m_origins.swap(origins);
    m_index.swap(index);
    m_version = nextVersion();
}

void Properties::assign(Properties&& other) {
    const std::scoped_lock guard(m_lock, other.m_lock);
    m_entries.swap(other.m_entries);
    m_origins.swap(other.m_origins);
    m_index.swap(other.m_index);
    m_version = nextVersion();
    other.m_version = nextVersion();
}

std::uint64_t Properties::nextVersion() {
    static std::atomic<std::uint64_t> last = 0;
    return ++last;
}

std::optional<std::string> Properties::find(std::string_view key) const {
    const std::lock_guard guard(m_lock);
    const auto entry = m_index.find(key);
    if (entry == m_index.end()) return std::nullopt;
    return *entry->second;
}

std::string Properties::get(std::string_view key, std::string_view fallback) const {
    std::optional<std::string> value = find(key);
    return value ? *std::move(value) : std::string(fallback);
}

std::unique_ptr<Properties::Map> Properties::getMap(std::string_view prefix) const {
    auto result = std::make_unique<Map>();
    const std::lock_guard guard(m_lock);
    // Keys with one prefix stand together in the table's order.
    for (auto entry = m_entries.lower_bound(prefix);
         entry != m_entries.end() && startsWithIgnoreCase(entry->first, prefix); ++entry) {
        result->emplace_hint(result->end(), *entry);
    }
    return result;
}

std::string Properties::origin(std::string_view key) const {
    const std::lock_guard guard(m_lock);
    const auto entry = m_origins.find(key);
    return entry == m_origins.end() ? std::string() : entry->second;
}

std::size_t Properties::size() const {
    const std::lock_guard guard(m_lock);
    return m_entries.size();
}

void Properties::dump() const {
    const auto entries = getMap("");
    for (const auto& [key, value] : *entries) {
        std::fprintf(stderr, "%s = %s\n", key.c_str(), value.c_str());
    }
}

}  // namespace vorn
