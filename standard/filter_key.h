// SPDX-License-Identifier: Apache-2.0
// A client's filter as a part of the cache's key.
#pragma once

#include <cstddef>
#include <string>

#include "backend/base/slapd_fwd.h"

namespace standard {

// Appends the filter's normal form: filters of one form are TRUE for the same entries.
// Filters have one form that differ in the order of elements, in repetitions, in nesting of
// one sort in itself, in how a name is written, and in what a value's rule does not count.
//
//     (&(uid=Ann)(&(cn=x*y)(uid=ann)))   // "(&(cn:*=x*y)(uid=ann))"
//
// Of a form that would make the key longer than most, some beginning that is longer.
void appendFilterKey(const Filter* filter, std::size_t most, std::string* key);

}  // namespace standard
