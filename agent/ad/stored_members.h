// SPDX-License-Identifier: Apache-2.0
// The memberUid values that are stored with groups.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "agent/ad/network.h"

namespace vexagent {

// They have no index: they are read as a whole, and read again once that is twenty times
// as long ago as it took, and a tenth of a second at least.
// Safe for several threads.
class StoredMembers {
  public:
    // The network outlives it.
    explicit StoredMembers(Network& network) : m_network(network) {}

    // The GUID bytes of the domain's groups with which this value is stored.
    Expected<std::vector<std::string>, LdapFailure> groupsOf(const Place& domain,
                                                             const std::string& memberUid,
                                                             const Deadline& deadline);

  private:
    struct Stored {
        std::mutex mutex;                                // held while they are read
        std::multimap<std::string, std::string> groups;  // GUID bytes by value; guarded by mutex
        Moment until{};                                  // guarded by mutex
    };
    std::shared_ptr<Stored> of(const Place& domain);
    Expected<Done, LdapFailure> read(const Place& domain, const Deadline& deadline, Stored& stored);

    Network& m_network;
    std::mutex m_mutex;
    std::map<std::string, std::shared_ptr<Stored>> m_stored;  // by domain; guarded by m_mutex
};

}  // namespace vexagent
