// Large attributes, whose values come in parts.
#pragma once

#include <cstddef>
#include <string>

#include "agent/ad/net/link.h"

namespace vexagent {

// "member;range=0-1499": the values of a large attribute come in parts. first is
// the next part's first value; it is 0 when this part is the last.
struct RangedName {
    std::string name;
    std::size_t next = 0;
};
bool parseRange(const std::string& text, RangedName& ranged);

// Reads the parts that an entry lacks, and gives the attributes their plain names.
LdapStatus readRanges(Link& link, Entry& entry, const Deadline& deadline);
bool hasRanges(const Entry& entry);

}  // namespace vexagent
