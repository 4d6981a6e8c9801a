// SPDX-License-Identifier: Apache-2.0
// A search of a domain, from its first entry to its last.
#pragma once

#include <memory>

#include "agent/ad/plan.h"

namespace vexagent {

// What a search has found so far.
struct AdFound {
    Batch first{};
    std::unique_ptr<Cursor> rest{};  // null when that was all
};

// What a search is run with. All of it outlives every cursor.
struct AdSource {
    Network& network;
    AdMemberships& memberships;
    milliseconds timeout;  // for each batch
};

// Entries are read only as far as they are asked for; meanwhile the controller goes
// on as far as the connection holds.
Expected<AdFound, Result> runAdSearch(const AdSource& source, AdPlan plan, const Deadline& deadline);

// The objects of entries, in their order: secrets left out, memberUid computed.
Expected<std::vector<Object>, Result> makeObjects(AdMemberships& memberships, const AdPlan& plan,
                                                  std::vector<Entry> entries, const Deadline& deadline);

}  // namespace vexagent
