// SPDX-License-Identifier: Apache-2.0
// The attributes that a search asks for, in the agent's terms.
//
// Applications ask for the same attributes again and again: what their names came to
// the last time is kept for each thread, and holds while what it was made of is the same.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "translate/attribute_names.h"

#include "backend/base/slapd_fwd.h"

// What the names asked for come to.
struct AttributeList {
    std::vector<std::string> asked;  // as the client spelt them
    AttributeNames attributes;       // the agent's; empty means all
    bool includeCn = false;          // the client asked for cn by name
};

// Translates the names of a request (null: none) for the map's entries of an object
// type. The type's name at the agent is empty when nothing is translated. Valid until
// the thread's next call.
const AttributeList& translateAttributes(const AttributeName* names, const std::string& objectType,
                                         const std::string& agentType);

// Whether the cache may answer a search for these attributes. An object is cached with
// all its attributes, so a name that no object carries can never be answered from
// there. Until the first bind has brought the list of names, nothing is cached.
bool attributesAreCacheable(const AttributeNames& attributes);
