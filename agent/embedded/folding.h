// SPDX-License-Identifier: Apache-2.0
// Comparing text without regard to case outside ASCII.
//
// LDB by itself folds ASCII letters only, and its index keys are made so, by the
// agent and by the ldb tools alike: another folding for the whole database would
// make keys that the tools' do not equal. So a filter with letters outside ASCII
// is run in two steps: LDB selects more than is wanted, and each object that it
// finds is matched again with Unicode's folding.
#pragma once

#include <string>
#include <string_view>

#include "agent/directory/tree.h"

namespace vexagent {

// The text with every letter in upper case, by Unicode's simple folding: one
// character becomes one character. Bytes that are not UTF-8 stay as they are, and
// composed and decomposed forms remain different. No character outside ASCII
// becomes one of ASCII, so text in ASCII compares as LDB alone would compare it.
std::string foldCase(std::string_view text);

// Whether LDB alone could overlook values that the assertion means: its value
// holds bytes outside ASCII and its attribute is compared without regard to case.
// DNs are not among them: the object of a DN is found by its index only.
bool needsFolding(const ParseTree* assertion);

// Makes a tree that selects at least the same objects and holds no assertion that
// needs folding. tree is replaced by a copy in the pool when there was one; else it
// stays, and the result is Some.
Selection loosenFilter(void* pool, ParseTree*& tree);

// Whether the object, with all attributes that the tree names, matches it with
// Unicode's folding. An assertion that LDB cannot evaluate matches nothing. The
// context belongs to the calling thread.
bool matchesFolded(ldb_context* ldb, const ldb_message* message, const ParseTree* tree);

}  // namespace vexagent
