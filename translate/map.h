// SPDX-License-Identifier: Apache-2.0
// Look-ups in the attribute translation map.
//
// The map is one table from text to text, compared without regard to case:
//     OBJECTTYPE             the agent's object category for that LDAP object class
//     OBJECTTYPE.ATTRIBUTE   the agent attribute that holds that LDAP attribute;
//                            an empty value takes the attribute out of filters
//     OBJECTTYPE.CN          the agent attribute that becomes the "cn=" of DNs
//     any assertion value    the value that replaces it in a filter
// A null map means that nothing is translated.
#pragma once

#include <string>
#include <string_view>

#include "vorn/properties.h"

// Whether there is a map with at least one entry.
bool translation_active(const vorn::Properties* map);

// The map's value for the key, or the fallback. Holds the map's lock for the one
// look-up.
std::string translate_name(const vorn::Properties* map, std::string_view key, std::string_view fallback);

// "OBJECTTYPE.ATTRIBUTE".
std::string translation_key(std::string_view objectType, std::string_view attribute);
