// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/auth_cache.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <sstream>

#include "agent/ad/login.h"
#include "agent/directory/log.h"
#include "agent/directory/passwords.h"
#include "vorn/descriptor.h"
#include "vorn/secret.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

constexpr std::size_t kLargestFile = std::size_t{16} << 20;

// Names may hold blanks and line ends: every such byte becomes a backslash and two
// digits, and a backslash too.
std::string written(const std::string& name) {
    std::string text;
    for (const char c : vorn::printable(name)) text += c == ' ' ? "\\20" : std::string(1, c);
    return text;
}

// The file's new content stands whole on the disk before it takes the old one's
// place.
bool replaceFile(const std::string& file, const std::string& text) {
    const std::string fresh = file + ".new";
    ::unlink(fresh.c_str());
    const vorn::Descriptor descriptor(
        ::open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    return descriptor.get() >= 0 &&
           ::write(descriptor.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
           ::fsync(descriptor.get()) == 0 && ::rename(fresh.c_str(), file.c_str()) == 0;
}

}  // namespace

AuthCache::AuthCache(const AuthCacheOptions& options, vorn::Clock clock)
    : m_options(options), m_clock(clock) {
    read();
}

void AuthCache::read() {
    vorn::Secret text;
    vorn::readOwnFile(m_options.file, kLargestFile, text);
    std::istringstream lines(text.text());
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        Record record;
        std::string name;
        if (!(words >> record.time >> record.failures >> record.hash >> name)) continue;
        words >> record.account;
        m_records[name] = record;
    }
}

void AuthCache::write() {
    vorn::Secret text;
    for (const auto& [name, record] : m_records)
        text.append(std::to_string(record.time) + " " + std::to_string(record.failures) + " " + record.hash +
                    " " + name + (record.account.empty() ? "" : " " + record.account) + "\n");
    if (!replaceFile(m_options.file, text.text()))
        AGENT_LOG(vorn::Logger::kError, "%s: %s", m_options.file.c_str(), std::strerror(errno));
}

bool AuthCache::serves(const Record& record) const {
    const std::time_t now = m_clock();
    // A record from the future says nothing about its age.
    return record.time <= now && now - record.time <= m_options.maxAge.count() &&
           record.failures < m_options.attempts;
}

class MemoryProof {
  public:
    static Accepted make() { return Accepted(); }
};

std::optional<Verdict> AuthCache::check(const std::string& name, const std::string& password) {
    const std::string key = written(vorn::lower(name));
    std::string hash;
    {
        const std::lock_guard lock(m_mutex);
        const auto record = m_records.find(key);
        if (record == m_records.end() || !serves(record->second)) return std::nullopt;
        hash = record->second.hash;
        // Counted beforehand, so that attempts at the same time all count.
        ++record->second.failures;
        write();
    }
    if (!fitsAnyHash(password, {hash})) return wrongPassword();
    const std::lock_guard lock(m_mutex);
    const auto record = m_records.find(key);
    if (record != m_records.end() && record->second.hash == hash) {
        record->second.failures = 0;
        write();
    }
    return MemoryProof::make();
}

void AuthCache::remember(const std::string& name, const std::string& account, const std::string& password) {
    Record record;
    record.hash = newHash(password);
    record.account = written(account);
    record.time = m_clock();
    if (record.hash.empty()) return forget(name, account);
    const std::lock_guard lock(m_mutex);
    if (m_records.size() >= kMostRecords) {
        const auto oldest =
            std::min_element(m_records.begin(), m_records.end(),
                             [](const auto& a, const auto& b) { return a.second.time < b.second.time; });
        m_records.erase(oldest);
    }
    m_records[written(vorn::lower(name))] = record;
    write();
}

void AuthCache::forget(const std::string& name, const std::string& account) {
    const std::lock_guard lock(m_mutex);
    const auto named = m_records.find(written(vorn::lower(name)));
    std::set<std::string> accounts = {written(account)};
    if (named != m_records.end()) accounts.insert(named->second.account);
    accounts.erase("");
    const std::size_t before = m_records.size();
    if (named != m_records.end()) m_records.erase(named);
    std::erase_if(m_records, [&](const auto& entry) { return accounts.contains(entry.second.account); });
    if (m_records.size() != before) write();
}

bool AuthCache::hasAnswers() {
    const std::lock_guard lock(m_mutex);
    return std::any_of(m_records.begin(), m_records.end(),
                       [this](const auto& entry) { return serves(entry.second); });
}

}  // namespace vexagent
