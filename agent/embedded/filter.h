// SPDX-License-Identifier: Apache-2.0
// What a filter costs on LDB.
#pragma once

#include "agent/directory/filter.h"

namespace vexagent {

// Rewrites the tree (see rewriteAssertions) and puts the most selective assertions
// of an AND first, where LDB uses them.
Selection rewriteFilter(void* pool, ParseTree*& tree, const FilterContext& context);

// Whether indexes lead to the few objects that the tree selects. An assertion that
// needs folding has no index.
bool isQuickFilter(const ParseTree* tree);

}  // namespace vexagent
