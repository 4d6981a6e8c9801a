// SPDX-License-Identifier: Apache-2.0
// Large attributes, whose values come in parts.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "agent/ad/net/results.h"

namespace vexagent {

// "member;range=0-1499": the values of a large attribute come in parts.
struct RangedName {
    std::string name;
    std::size_t next = 0;  // the next part's first value; 0 when this part is the last
};
// Nothing for a name that is no part's.
std::optional<RangedName> parseRange(const std::string& text);

bool hasRanges(const Entry& entry);

// Reads the parts that an entry lacks, and gives the attributes their plain names. An entry
// that has none is left as it is.
Linked<Done> completeRanges(LinkReader& reader, Entry& entry);

}  // namespace vexagent
