// SPDX-License-Identifier: Apache-2.0
// What groups show as memberUid, remembered until the database changes.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "agent/directory/directory.h"
#include "agent/embedded/database.h"
#include "vorn/guarded.h"

namespace vexagent {

// A group of ten thousand costs ten thousand reads, so it is computed once. The
// database's sequence number tells whether anything has changed since. Safe for
// several threads.
class Memberships {
  public:
    using Names = std::shared_ptr<const std::vector<std::string>>;

    // The names of the group's members, as memberUids() gives them. Never null.
    Names of(Handle& handle, const ldb_message* group, Naming naming);

  private:
    static constexpr std::size_t kMaxNames = 1'000'000;

    Names find(std::optional<std::uint64_t> sequence, const std::string& key);
    void keep(std::optional<std::uint64_t> sequence, const std::string& key, const Names& names);

    struct Known {
        std::optional<std::uint64_t> sequence;
        std::unordered_map<std::string, Names> groups;  // by naming and GUID bytes
        std::size_t count = 0;                          // names in groups
    };
    vorn::Guarded<Known> m_known;
};

}  // namespace vexagent
