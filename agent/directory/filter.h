// SPDX-License-Identifier: Apache-2.0
// From a client's filter to one that a directory can answer, as an LDB filter tree.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/directory/directory.h"
#include "agent/directory/filter_shape.h"
#include "agent/directory/schema.h"
#include "agent/directory/tree.h"

namespace vexagent {

// What the filter's meaning hangs on besides its text.
struct FilterContext {
    ldb_context* ldb = nullptr;      // for DNs
    const Schema* schema = nullptr;  // null: a schema that knows nothing
    std::string rootDn;              // the forest's root, below which objectCategory's short names point
    // The GUID bytes of the groups that show this memberUid; unset outside the
    // zone's view, where memberUid is an attribute like any other.
    std::function<std::vector<std::string>(std::string_view)> groupsOf;
    // Asked first about every assertion but one on a secret, if set; what it does
    // not decide is rewritten by the rules below.
    std::function<std::optional<Selection>(void* pool, ParseTree*& assertion)> first;
};

// Parses RFC 4515 text into the pool; empty text is null. _GUID, _dn and
// _objectCategory become the attributes that directories hold instead.
// VEX_BAD_FILTER with the LDAP client library's LDAP_FILTER_ERROR for text that is
// no filter, or more than one, or asserts something of what is no attribute
// description; VEX_REFUSED with LDAP_ADMINLIMIT_EXCEEDED for more than kMostAssertions.
Result parseFilter(void* pool, const std::string& text, ParseTree*& tree);

// Rewrites the tree in place:
//   - an attribute that is called by its number gets its name;
//   - an assertion on a secret, or on a number that the schema does not know, is
//     undefined (RFC 4511, 4.5.1.7): neither it nor its negation matches anything;
//   - the text forms of objectGUID and objectSid, other spellings of a DN, and
//     objectCategory's short names become what the database holds;
//   - memberUid becomes the person's own groups (see FilterContext);
//   - what no stored value can match, such as uidNumber=abc, is dropped.
Selection rewriteAssertions(void* pool, ParseTree*& tree, const FilterContext& context);

// Puts the cheapest elements of every AND first.
void sortAnds(ParseTree* tree, int (*cost)(const ParseTree*));

// New parts of a tree, in the pool. newList is an AND or an OR.
ParseTree* newNode(void* pool, ldb_parse_op operation);
ParseTree* newList(void* pool, ldb_parse_op operation, const std::vector<ParseTree*>& elements);
ParseTree* newEquality(void* pool, const char* attribute, std::string_view value);
ParseTree* newPresence(void* pool, const char* attribute);

}  // namespace vexagent
