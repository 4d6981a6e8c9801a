// SPDX-License-Identifier: Apache-2.0
// From a database record to the object that a client sees.
#pragma once

#include "agent/directory/directory.h"
#include "agent/directory/unix_ids.h"
#include "agent/embedded/database.h"
#include "agent/embedded/memberships.h"

namespace vexagent {

// What objects are made from. Database and memberships outlive every cursor.
struct Source {
    Database& database;
    Memberships& memberships;
    UnixIds ids;
};

// The object as the view wants it: first its own _dn, _GUID, _objectCategory and
// perhaps _nssEntryInvalid, then the stored attributes in their order, secrets
// left out; in the zone's view a group's memberUid is the computed one.
Object makeObject(Handle& handle, const Source& source, const ldb_message* message, const View& view);

// About how many bytes the object takes in a batch.
std::size_t objectBytes(const Object& object);

}  // namespace vexagent
