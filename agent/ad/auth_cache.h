// SPDX-License-Identifier: Apache-2.0
// The agent's own memory of passwords that were right, for times without a domain.
//
// A record holds a name, whose it is, a yescrypt hash of the password, when the domain
// accepted it and how many wrong passwords have been tried since. The file holds one
// record a line; it has mode 0600 and is replaced as a whole. A record that is too old,
// or has been tried too often, answers nothing. What the domain refuses ends the records
// of all the names that the account has.
#pragma once

#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "agent/ad/options.h"
#include "agent/directory/verdict.h"
#include "vorn/own_file.h"

namespace vexagent {

using AuthCacheError = vorn::OwnFileError;

// Safe for several threads and, in one process, for one object on one file.
class AuthCache {
  public:
    // Reads the file, if there is one. Throws AuthCacheError when it cannot be read,
    // belongs to somebody else, or others may read it.
    AuthCache(const AuthCacheOptions& options, vorn::Clock clock);

    // Whether this was the password; nothing when there is no record that could tell.
    std::optional<Verdict> check(const std::string& name, const std::string& password);

    // The domain has accepted the password of the account that has this name, or has
    // refused one: then none of the account's names is remembered any more. account is
    // the same for all its names; empty where it is not known. What cannot be written is
    // logged.
    void remember(const std::string& name, const std::string& account, const std::string& password);
    void forget(const std::string& name, const std::string& account);

    // Whether there is a record that could answer.
    bool hasAnswers();

    static constexpr std::size_t kMostRecords = 10'000;

  private:
    struct Record {
        std::string hash;
        std::string account;  // empty in records of an earlier agent
        std::time_t time = 0;
        int failures = 0;
    };
    bool serves(const Record& record) const;
    void read();
    void write();

    const AuthCacheOptions m_options;
    const vorn::Clock m_clock;
    std::mutex m_mutex;
    std::map<std::string, Record> m_records;  // by lower-case name; guarded by m_mutex
};

}  // namespace vexagent
