// SPDX-License-Identifier: Apache-2.0
// What a domain holds: from a query to its objects.
#pragma once

#include <string>
#include <vector>

#include "agent/ad/plan.h"
#include "agent/ad/search.h"

namespace vexagent {

// Safe for several threads. A request has the time of the settings, from its beginning on.
class Searches {
  public:
    // All of it outlives it, and every cursor that it has given.
    Searches(Network& network, const AdOptions& options, Domains& domains);

    // The questions of Directory, with an answer for each.
    static bool isQuick(int scope, const std::string& filter);
    Expected<AdFound, Result> search(const Query& query);
    Expected<Object, Result> fetch(const std::string& domain, const std::string& dn, const View& view);
    Expected<Object, Result> lookup(const std::string& guid, const View& view);
    Expected<std::vector<std::string>, Result> supportedAttributes();
    // Those of Directory's look-ups ahead that one question to the joined domain finds.
    // Left out are groups whose members are to be shown: they take many questions more.
    std::vector<Object> lookupAhead(const std::vector<std::string>& guids, const View& view);

  private:
    Deadline deadline() const { return {m_network.clock(), m_options.timeout}; }
    AdSource source() { return {m_network, m_memberships, m_options.timeout}; }
    Expected<AdFound, Result> findNothing(const AdPlan& plan, const Deadline& deadline);
    Expected<AdFound, Result> searchRewritten(AdPlan plan, const std::string& dn, const Result& missing,
                                              const Deadline& deadline);
    Expected<std::string, Result> findInForest(const LdapSearch& wanted, const Deadline& deadline);
    Expected<Object, Result> show(Entry entry, const AdPlan& plan, const Deadline& deadline);

    Network& m_network;
    const AdOptions& m_options;
    Domains& m_domains;
    AdMemberships m_memberships;
    Planner m_planner;
};

}  // namespace vexagent
