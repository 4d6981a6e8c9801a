// A search of a domain, from its first entry to its last.
#pragma once

#include <memory>

#include "agent/ad/members.h"
#include "agent/ad/net/domain.h"
#include "agent/ad/objects.h"
#include "agent/directory/directory.h"
#include "agent/directory/schema.h"

namespace vexagent {

// What objects are made from. All of it outlives every cursor.
struct AdSource {
    Domain& domain;   // that is searched
    Domain& members;  // that groups' members are in
    AdMemberships& memberships;
    const AdOptions& options;
};

struct AdPlan {
    LdapSearch search;
    bool typed = false;
    std::string without;         // the DN of the base, where that is not wanted
    std::size_t firstBatch = 0;  // as in Query
    View view;
    std::shared_ptr<const Ids> ids;
    std::shared_ptr<const Schema> schema;
};

// Entries are read only as far as they are asked for; meanwhile the controller goes
// on as far as the connection holds. A search that has more than its first batch
// keeps its connection until it is read to its end or given up.
Result runAdSearch(const AdSource& source, AdPlan plan, const Deadline& deadline, Batch& first,
                   std::unique_ptr<Cursor>& rest);

// The objects of entries: large attributes completed, memberUid computed.
Result makeObjects(const AdSource& source, const AdPlan& plan, std::vector<Entry>& entries,
                   const Deadline& deadline, std::vector<Object>& objects);

}  // namespace vexagent
