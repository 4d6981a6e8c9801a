// slapd's parsed filters as the agent's filter text.
#pragma once

#include <string>
#include <string_view>

#include "vorn/properties.h"

#include "backend/slapd.h"

// The filter in the agent's vocabulary; possibly empty. objectType may be empty;
// a null map renames nothing. Throws vorn::VORNException (no message, code 0) for
// a choice that the agent does not know, after logging it.
std::string filter_as_string(std::string_view objectType, const Filter* filter, const vorn::Properties* map);

// The elements of an AND, OR or NOT, one after the other; *count becomes the
// number of those that gave any text.
std::string filter_list_as_string(std::string_view objectType, const Filter* node,
                                  const vorn::Properties* map, int* count);

// One value, escaped for a filter. A value that holds "DC", optional blanks and
// "=" is a distinguished name and stays as it is.
std::string escape_filter_value(std::string_view text);

// The first assertion on objectClass or objectCategory, depth first: its
// attribute's name as the client wrote it, and its value. False when there is none.
bool find_object_type(const Filter* filter, std::string* attrName, std::string* value);
