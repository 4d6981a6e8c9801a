// SPDX-License-Identifier: Apache-2.0
// slapd's parsed filters as the agent's filter text.
//
// A value is text that ends at its first NUL byte, as texts of the agent's interface do.
// Only what stands before a NUL is translated. What stands after it is never looked at.
// Names are attribute descriptions (RFC 4512). slapd passes other bytes on as they are,
// and such bytes could write a filter of their own.
#pragma once

#include <string>
#include <string_view>

#include "vorn/properties.h"

#include "backend/base/slapd_fwd.h"

// The filter in the agent's terms; possibly empty. objectType may be empty;
// a null map renames nothing. Greater-or-equal and less-or-equal become equality.
// A filter that slapd has computed to be true or false in advance, as an AND or OR
// without elements is, gives no text. Throws vorn::VORNException (no message,
// code 0) for a choice that the agent does not know and for a name that is no
// attribute description, after logging it.
std::string filter_as_string(std::string_view objectType, const Filter* filter, const vorn::Properties* map);

// The same, and whether upper-case letters in its values count. If they do, two texts that
// differ only in case may find different objects. slapd makes values lower-case when its
// schema compares them without regard to case. So an upper-case letter that is left counts,
// except in names of object classes and categories.
struct TranslatedFilter {
    std::string text;
    bool caseCounts;
};
TranslatedFilter translate_filter(std::string_view objectType, const Filter* filter,
                                  const vorn::Properties* map);

// The elements of an AND, OR or NOT, one after the other; *count becomes the
// number of those that gave any text. Throws as filter_as_string.
std::string filter_list_as_string(std::string_view objectType, const Filter* node,
                                  const vorn::Properties* map, int* count);

// One value, escaped for a filter: backslash, parentheses, asterisk, control bytes
// and every byte that is not ASCII become a backslash and two upper-case
// hexadecimal digits. A value that holds "DC" (in any case), optional blanks or
// tabs and "=" is a distinguished name and stays as it is.
std::string escape_filter_value(std::string_view text);

// The first assertion on objectClass or objectCategory, depth first: its
// attribute's name as the filter has it, and its value. False when there is none;
// the outputs are then left as they were. A node without one value of its own
// (presence, substrings) names no type.
bool find_object_type(const Filter* filter, std::string* attrName, std::string* value);
