// SPDX-License-Identifier: Apache-2.0
// From a controller's entry to the object that a client sees.
#pragma once

#include <string>
#include <vector>

#include "agent/ad/entry.h"
#include "agent/ad/ids.h"
#include "agent/directory/directory.h"

namespace vexagent {

// The attributes to ask a controller for, so that the view can be made.
std::vector<std::string> attributesFor(const View& view, const Ids& ids);

// What kind of thing an entry is.
std::string categoryOf(const Entry& entry);
bool isUnixKind(const Entry& entry);

// Whether the view shows a computed memberUid on this entry.
bool showsMembers(const Entry& entry, const View& view);

// The name by which a person is a member of groups; empty for one who does not count, and for
// anything else than a person. A disabled person counts. For applications the name of
// somebody without a uidNumber begins with kUnnumbered.
std::string memberName(const Entry& entry, const Ids& ids, Naming naming);

// The object: its own _dn, _GUID, _objectCategory and perhaps _nssEntryInvalid
// first, then the attributes in the controller's order, secrets left out. members
// are the names of a group's members, null where none are shown. An entry of the catalog is but
// a part of an object, which cannot tell whether the whole is of use: it gets no mark but for a
// number that hosts are not shown.
enum class Part { Whole, OfCatalog };
Object makeObject(const Entry& entry, const View& view, const Ids& ids,
                  const std::vector<std::string>* members, Part part = Part::Whole);

}  // namespace vexagent
