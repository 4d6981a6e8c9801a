// SPDX-License-Identifier: Apache-2.0
// The grammar of properties files, apart from the table that they fill.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace vorn {

struct PropertiesEntry {
    std::string key;
    std::string value;
    std::size_t line;  // where the key stands, from 1
};

// The entries of a text, in its order; a key given twice is there twice. Throws
// PropertiesException, "ORIGIN:LINE: REASON". A pure function: the same text
// always gives the same answer, and nothing outside is looked at.
std::vector<PropertiesEntry> parseProperties(std::string_view text, const std::string& origin);

}  // namespace vorn
