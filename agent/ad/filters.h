// SPDX-License-Identifier: Apache-2.0
// From a client's filter to one that a domain controller answers quickly.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "agent/ad/ids.h"
#include "agent/directory/directory.h"
#include "agent/directory/filter.h"
#include "vorn/expected.h"

namespace vexagent {

// The value as it stands in a filter (RFC 4515, 3).
std::string escapeFilterValue(std::string_view value);

// "(|(name=a)(name=b))", escaped; the list is not empty.
std::string anyOf(const char* name, const std::vector<std::string>& values);

// Whether an index of Active Directory leads to few objects.
bool isQuickAdFilter(const ParseTree* tree);

// What the query's filter is to a controller; no text when no object can match. A typed
// query whose filter does not lead to few objects by itself gets the classes of UNIX kinds,
// which are indexed.
vorn::Expected<std::optional<std::string>, Result> makeAdFilter(const Query& query,
                                                                const FilterContext& context);

// In the zone's view: memberUid=NAME becomes the groups that groupsOf gives, as GUID
// bytes, and nothing else, since memberUid has no index; presence asks for a stored
// value or a member. For FilterContext::first.
using GroupsOf = std::function<std::vector<std::string>(std::string_view)>;
std::optional<Selection> rewriteMemberAssertion(void* pool, ParseTree*& tree, const GroupsOf& groupsOf);

// Where ids are made from SIDs: assertions on uidNumber and gidNumber also find the
// accounts that show a made one. For FilterContext::first.
std::optional<Selection> rewriteIdAssertion(void* pool, ParseTree*& tree, const Ids& ids);

}  // namespace vexagent
