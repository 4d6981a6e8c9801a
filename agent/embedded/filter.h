// From a client's filter to one that LDB can answer.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/directory.h"
#include "agent/embedded/tree.h"

namespace vexagent {

// What the filter's meaning hangs on besides its text.
struct FilterContext {
    ldb_context* ldb = nullptr;  // for DNs
    std::string domainDn;        // where objectCategory's short names point to
    // The GUID bytes of the groups that show this memberUid; unset outside the
    // zone's view, where memberUid is an attribute like any other.
    std::function<std::vector<std::string>(std::string_view)> groupsOf;
};

// Parses RFC 4515 text into the pool; empty text is null. _GUID, _dn and
// _objectCategory become the attributes that the database holds instead.
// VEX_BAD_FILTER with the LDAP client library's LDAP_FILTER_ERROR for text that is
// no filter.
Result parseFilter(void* pool, const std::string& text, ParseTree*& tree);

// Rewrites the tree in place:
//   - an assertion on a secret is undefined (RFC 4511, 4.5.1.7): neither it nor
//     its negation matches anything;
//   - the text forms of objectGUID and objectSid, other spellings of a DN, and
//     objectCategory's short names become what the database holds;
//   - memberUid becomes the person's own groups (see FilterContext);
//   - what no stored value can match, such as uidNumber=abc, is dropped;
//   - in an AND the most selective assertions go first, where LDB uses them.
Selection rewriteFilter(void* pool, ParseTree*& tree, const FilterContext& context);

// Whether indexes lead to the few objects that the tree selects. An assertion that
// needs folding has no index.
bool isQuickFilter(const ParseTree* tree);

}  // namespace vexagent
