// SPDX-License-Identifier: Apache-2.0
#include "agent/embedded/filter.h"

#include <algorithm>

#include "agent/embedded/database.h"
#include "agent/embedded/folding.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

bool is(std::string_view name, std::string_view other) {
    return vorn::equalsIgnoreCase(name, other);
}

// LDB reads an AND's index lists in order and stops once a list is short, so a
// list of everybody must not come first.
int cost(const ParseTree* tree) {
    if (isQuickFilter(tree)) return 0;
    if (tree->operation != LDB_OP_EQUALITY) return 4;
    const std::string_view name = tree->u.equality.attr;
    if (is(name, "gidNumber") || is(name, "primaryGroupID")) return 2;
    const std::string_view value = bytesOf(tree->u.equality.value);
    const bool everybody = is(value, "user") || is(value, "person") || is(value, "top") ||
                           is(value, "organizationalPerson") ||
                           vorn::startsWithIgnoreCase(value, "CN=Person,");
    return everybody ? 3 : 1;
}

}  // namespace

Selection rewriteFilter(void* pool, ParseTree*& tree, const FilterContext& context) {
    const Selection selection = rewriteAssertions(pool, tree, context);
    if (selection == Selection::Some) sortAnds(tree, cost);
    return selection;
}

bool isQuickFilter(const ParseTree* tree) {
    if (tree == nullptr) return false;
    const auto quick = [](const ParseTree* element) { return isQuickFilter(element); };
    const auto& list = tree->u.list;
    switch (tree->operation) {
        case LDB_OP_AND:
            return std::any_of(list.elements, list.elements + list.num_elements, quick);
        case LDB_OP_OR:
            return std::all_of(list.elements, list.elements + list.num_elements, quick);
        case LDB_OP_EQUALITY:
            return !needsFolding(tree) &&
                   (isSelective(tree->u.equality.attr) || is(tree->u.equality.attr, "gidNumber"));
        default:
            return false;
    }
}

}  // namespace vexagent
