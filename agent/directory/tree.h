// SPDX-License-Identifier: Apache-2.0
// Walking a filter tree.
#pragma once

#include <functional>

#include "agent/directory/ldb.h"

namespace vexagent {

// What is left of a filter, or of a part of one.
enum class Selection {
    Nothing,  // no object can match
    All,      // every object matches
    Some      // those that the tree matches
};

// The attribute that an assertion is about; null for AND, OR and NOT, and for an
// extensible match without one.
const char* assertedAttribute(const ParseTree* tree);

// Puts another attribute in its place. The name lives as long as the tree.
void renameAsserted(ParseTree* assertion, const char* name);

// Decides one assertion, and may put another tree in its place. negated: whether
// an odd number of NOTs stands above.
using Decide = std::function<Selection(ParseTree*& assertion, bool negated)>;

// Decides every assertion, and drops in place the parts whose value is known by that. Two
// values are enough: an undefined assertion is decided by looking at negated.
Selection simplify(ParseTree*& tree, bool negated, const Decide& decide);

}  // namespace vexagent
