// SPDX-License-Identifier: Apache-2.0
// Searches of a domain: whole ones, and one that is read as far as its results are wanted.
#pragma once

#include <vector>

#include "agent/ad/net/domain.h"
#include "agent/ad/network.h"

namespace vexagent {

// As Network says it of search.
Expected<SearchEnd, LdapFailure> searchIn(Domain& domain, const std::vector<LdapSearch>& searches,
                                          EntrySink& sink, const Deadline& deadline);

// Runs it up to its first batch. Entries are read only as far as they are asked for;
// meanwhile the controller goes on as far as the connection holds. A search that has more
// than its first batch keeps its connection until it is read to its end or given up. The
// domain outlives it.
Expected<OpenedSearch, LdapFailure> openSearch(Domain& domain, LongSearch search, const Deadline& deadline);

}  // namespace vexagent
