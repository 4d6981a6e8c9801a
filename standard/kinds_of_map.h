// SPDX-License-Identifier: Apache-2.0
// The kinds of entries, made of the translation map and the schema.
#pragma once

#include <string>
#include <vector>

#include "standard/kinds.h"
#include "standard/schema.h"
#include "vorn/exception.h"
#include "vorn/properties.h"

namespace standard {

// A map that does not fit the schema. what() is "FILE:LINE: REASON".
class MapException : public vorn::VORNException {
  public:
    explicit MapException(const std::string& message) : VORNException(message, "MapException", 0) {}
};

struct KindsOfMap {
    Kinds kinds;
    std::vector<std::string> warnings;
};

// Throws MapException for a class or an attribute that the schema does not know, for two
// lines of one class for one attribute, and for a kind of two structural classes.
KindsOfMap kindsOf(const vorn::Properties& map, const Schema& schema);

}  // namespace standard
