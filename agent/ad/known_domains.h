// SPDX-License-Identifier: Apache-2.0
// The domains that a domain names itself: those of its forest, and those that it has a
// trust with.
//
// Only a domain that is among these is asked for anything: a client may name any other,
// and whoever that belongs to would be asked by the agent with the agent's credentials.
#pragma once

#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "agent/ad/entry.h"
#include "vorn/strings.h"

namespace vexagent {

class KnownDomains {
  public:
    // forest is the DNS name of the forest that it is about.
    explicit KnownDomains(std::string forest = {}) : m_forest(std::move(forest)) {}

    const std::string& forest() const { return m_forest; }

    // From an object of the class crossRef below the forest's partitions. Partitions
    // that are no domain, and places outside the forest, do not count.
    void addPartition(const Entry& partition);

    // From an object of the class trustedDomain. It counts when the other side is a
    // domain with controllers of its own that lets accounts of this one in.
    void addTrust(const Entry& trust);

    // Whether a domain of that DNS name is among them, in whatever case.
    bool contains(std::string_view name) const { return m_names.contains(vorn::lower(name)); }

    std::size_t size() const { return m_names.size(); }

    // What is asked for to learn them.
    static const std::vector<std::string> kPartitionAttributes;
    static const std::vector<std::string> kTrustAttributes;

    // No more are taken, however many a controller sends.
    static constexpr std::size_t kMost = 1024;

  private:
    void add(const std::string& name);

    const std::string m_forest;
    std::set<std::string> m_names;  // in lower case
};

}  // namespace vexagent
