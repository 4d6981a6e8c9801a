// SPDX-License-Identifier: Apache-2.0
// The names of the attributes that agent objects can carry: absent until the first
// bind that reaches the agent, then never changed until the module's end.
#pragma once

#include <string_view>

#include "vex/handles.h"

// Publishes a list, once for the life of the module: of lists that arrive together the
// first stays and the others are freed. Sorts it.
void publishSupportedAttributes(vex::UniqueStringSet names);

// Whether a list with at least one name has been published.
bool supportedAttributesAreKnown();

// Another number for every list that is published; 0 before the first.
unsigned supportedAttributesVersion();

// Whether the published list holds the name, compared without regard to case.
bool isSupportedAttribute(std::string_view name);
