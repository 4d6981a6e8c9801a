// SPDX-License-Identifier: Apache-2.0
// The embedded directory: Active Directory's shape on a file of this host.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "agent/directory/directory.h"
#include "agent/embedded/database.h"
#include "agent/embedded/memberships.h"
#include "agent/embedded/names.h"
#include "agent/embedded/objects.h"
#include "vorn/clock.h"
#include "vorn/guarded.h"

namespace vexagent {

struct EmbeddedOptions {
    std::string database;                      // the LDB file
    std::string domain;                        // the joined domain's DNS name
    std::vector<std::string> loginAttributes;  // see NameRules
    vorn::Clock clock = vorn::systemTime;
    std::uint32_t leastId = 1;      // that hosts are shown, see UnixIds
    bool changesPasswords = false;  // the file must be writable then
};

class EmbeddedDirectory : public Directory {
  public:
    // Throws DatabaseError.
    explicit EmbeddedDirectory(const EmbeddedOptions& options);

    bool isQuick(int scope, const std::string& filter) const override;
    Result search(const Query& query, Batch& first, std::unique_ptr<Cursor>& rest) override;
    Result fetch(const std::string& domain, const std::string& dn, const View& view, Object& object) override;
    Result lookup(const std::string& guid, const View& view, Object& object) override;
    void lookupAhead(const std::vector<std::string>& guids, const View& view, const Take& take) override;
    // Always asks the file, whatever the options.
    Verdict authenticate(const std::string& user, const std::string& password,
                         LoginOptions options = {}) override;
    Result changePassword(const std::string& user, const std::string& oldPassword,
                          const std::string& newPassword) override;
    Result supportedAttributes(std::vector<std::string>& names) override;
    Result health() override;

  private:
    Result checkDomain(const std::string& domain) const;
    Result findBase(Handle& handle, void* pool, const Query& query, ldb_dn*& base);
    Verdict check(const std::string& user, const std::string& password, void* pool,
                  const ldb_message*& account);
    std::optional<Result> refusalOf(const ldb_message* user) const;
    std::string idleSetting(Handle& handle);
    Source source() { return {m_database, m_memberships, m_ids}; }

    // What was made of the whole database, and when it was as old as that.
    template <typename T>
    struct Derived {
        std::optional<std::uint64_t> sequence;
        T value;
        bool isOf(const std::optional<std::uint64_t>& now) const { return now && now == sequence; }
    };

    const NameRules m_rules;
    const std::string m_domainDn;
    const vorn::Clock m_clock;
    const UnixIds m_ids;
    const bool m_changesPasswords;
    Database m_database;
    Memberships m_memberships;

    vorn::Guarded<Derived<std::vector<std::string>>> m_names;
    vorn::Guarded<Derived<std::string>> m_idleSetting;
};

}  // namespace vexagent
