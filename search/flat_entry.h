// SPDX-License-Identifier: Apache-2.0
// A slapd entry in one block of memory.
//
// str2entry makes an entry of dozens of small blocks. One that is read again and again,
// together with thousands of others, is read faster, and takes less, in one piece.
#pragma once

#include <cstddef>

#include "search/handles.h"

#include "backend/base/slapd_fwd.h"

// A copy to be read only, its text and values all within one block, which goes with the
// last share. slapd must never be told to free or to modify it. Descriptions of
// attributes are shared with the original: they are the schema's.
SharedEntry flatCopy(const Entry& entry);

// The bytes of that block.
std::size_t flatSize(const Entry& entry);
