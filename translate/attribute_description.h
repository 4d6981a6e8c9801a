// What may stand as an attribute's name.
#pragma once

#include <string_view>

// Whether the text is an attribute description of RFC 4512: a name of letters, digits
// and hyphens that begins with a letter, or numbers separated by dots; and options,
// each behind a semicolon.
bool isAttributeDescription(std::string_view text);
