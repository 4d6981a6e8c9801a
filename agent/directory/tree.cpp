// SPDX-License-Identifier: Apache-2.0
#include "agent/directory/tree.h"

namespace vexagent {
namespace {

// decisive is the element that decides the whole, neutral the one that adds
// nothing.
struct ListRule {
    Selection decisive;
    Selection neutral;
};

Selection simplifyList(ParseTree*& tree, bool negated, const Decide& decide, const ListRule& rule) {
    auto& list = tree->u.list;
    unsigned kept = 0;
    for (unsigned i = 0; i < list.num_elements; ++i) {
        const Selection element = simplify(list.elements[i], negated, decide);
        if (element == rule.decisive) return rule.decisive;
        if (element != rule.neutral) list.elements[kept++] = list.elements[i];
    }
    if (kept == 0) return rule.neutral;
    list.num_elements = kept;
    if (kept == 1) tree = list.elements[0];
    return Selection::Some;
}

Selection simplifyNot(ParseTree* tree, bool negated, const Decide& decide) {
    const Selection child = simplify(tree->u.isnot.child, !negated, decide);
    if (child == Selection::All) return Selection::Nothing;
    if (child == Selection::Nothing) return Selection::All;
    return Selection::Some;
}

// Where an assertion has its attribute; null for AND, OR and NOT.
const char* const* attributeOf(const ParseTree* tree) {
    switch (tree->operation) {
        case LDB_OP_EQUALITY:
            return &tree->u.equality.attr;
        case LDB_OP_SUBSTRING:
            return &tree->u.substring.attr;
        case LDB_OP_GREATER:
        case LDB_OP_LESS:
        case LDB_OP_APPROX:
            return &tree->u.comparison.attr;
        case LDB_OP_PRESENT:
            return &tree->u.present.attr;
        case LDB_OP_EXTENDED:
            return &tree->u.extended.attr;
        default:
            return nullptr;
    }
}

}  // namespace

const char* assertedAttribute(const ParseTree* tree) {
    const char* const* place = attributeOf(tree);
    return place == nullptr ? nullptr : *place;
}

void renameAsserted(ParseTree* tree, const char* name) {
    *const_cast<const char**>(attributeOf(tree)) = name;
}

Selection simplify(ParseTree*& tree, bool negated, const Decide& decide) {
    switch (tree->operation) {
        case LDB_OP_AND:
            return simplifyList(tree, negated, decide, {Selection::Nothing, Selection::All});
        case LDB_OP_OR:
            return simplifyList(tree, negated, decide, {Selection::All, Selection::Nothing});
        case LDB_OP_NOT:
            return simplifyNot(tree, negated, decide);
        default:
            return decide(tree, negated);
    }
}

}  // namespace vexagent
