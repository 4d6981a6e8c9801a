// SPDX-License-Identifier: Apache-2.0
// From what a client asks for to what a domain is asked for.
#pragma once

#include <memory>
#include <string>

#include "agent/ad/domains.h"
#include "agent/ad/ids.h"
#include "agent/ad/members.h"
#include "agent/ad/schema.h"
#include "agent/directory/directory.h"

namespace vexagent {

// Where to look, for what, and how what is found becomes objects.
struct AdPlan {
    Place place;    // that is asked
    Place members;  // that groups' members are in
    LdapSearch search{};
    bool nothing = false;  // no object can match: nobody need be asked
    bool typed = false;
    std::string without{};       // the DN of the base, where that is not wanted
    std::size_t firstBatch = 0;  // as in Query
    View view{};
    std::shared_ptr<const Ids> ids{};
    std::shared_ptr<const Schema> schema{};
};

// Safe for several threads.
class Planner {
  public:
    // All of it outlives it.
    Planner(Network& network, const AdOptions& options, const Domains& domains, AdMemberships& memberships)
        : m_network(network),
          m_options(options),
          m_domains(domains),
          m_memberships(memberships),
          m_schema(network, domains.joined()) {}

    // What a query means there.
    Expected<AdPlan, Result> search(const Query& query, const Place& place, const Deadline& deadline);

    // What one object is asked for and made with; what it is found by is left open.
    Expected<AdPlan, Result> one(const View& view, const Place& place, const Deadline& deadline);

    // The DN that the controller gives the base of a search; VEX_NO_SUCH_OBJECT where it is
    // not there.
    Expected<std::string, Result> readBase(const Place& place, const std::string& base,
                                           const Deadline& deadline);

    Expected<AdSchema::Known, LdapFailure> schema(const Deadline& deadline) { return m_schema.get(deadline); }

  private:
    Expected<std::shared_ptr<const Ids>, Result> idsOf(const Place& domain, const Deadline& deadline);
    Expected<Done, Result> addFilter(const Query& query, const Deadline& deadline, AdPlan& plan);
    Expected<Done, Result> addBase(const Query& query, const Deadline& deadline, AdPlan& plan);

    Network& m_network;
    const AdOptions& m_options;
    const Domains& m_domains;
    AdMemberships& m_memberships;
    AdSchema m_schema;
};

// Whether an index leads to the few objects that a filter finds.
bool leadsToFew(const std::string& filter);

}  // namespace vexagent
