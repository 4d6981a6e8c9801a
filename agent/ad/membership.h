// SPDX-License-Identifier: Apache-2.0
// What walks along memberships read.
#pragma once

#include <string>
#include <vector>

#include "agent/ad/ids.h"
#include "agent/ad/network.h"

namespace vexagent {

// What one walk is made with. All of it outlives the walk.
struct WalkContext {
    Network& network;
    const Place& domain;
    const Ids& ids;
    Naming naming;
    const Deadline& deadline;
    std::size_t mostGroups;
};

// Searches for the holders of the values, a few to each: a controller compares every entry
// that it finds with every element of an OR, so many small searches are cheaper than one
// large one.
std::vector<LdapSearch> searchesFor(const std::string& root, const char* name,
                                    const std::vector<std::string>& values,
                                    const std::vector<std::string>& attributes);

// What took a time to read counts for so many of that time.
inline constexpr int kReadRarely = 20;

// A walk that meets more groups is given up.
LdapFailure tooManyGroups(std::size_t most);

// The values of an attribute; none where the entry does not carry it.
const std::vector<std::string>& valuesOf(const Entry& entry, const char* name);

// In order, each once.
void sortOnce(std::vector<std::string>& names);

}  // namespace vexagent
