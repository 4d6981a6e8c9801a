// SPDX-License-Identifier: Apache-2.0
// Building the embedded directory's database from LDIF (RFC 2849).
#pragma once

#include <string>
#include <vector>

#include "agent/embedded/database.h"

namespace vexagent {

// Builds the database at path from the LDIF file, for a domain with this root.
// It is built beside its place and moved there when it is whole, so a failure
// leaves nothing behind. Throws DatabaseError with "FILE:LINE: reason", LINE being
// that of the record's first line.
//
// What an entry lacks is added: objectGUID, derived from the DN so that the same
// file always gives the same GUIDs; objectCategory, from the most specific class;
// the attribute of the RDN. objectGUID and objectSid may be given as text. DNs in
// member, manager and memberOf are stored in one spelling. The order of
// entries does not matter, and an entry's parent need not be there.
//
// A value of a text attribute that is not UTF-8 is loaded, but clients will not see it:
// complaints gets "FILE:LINE: DN: ATTRIBUTE: reason" for each.
void buildDatabase(const std::string& path, const std::string& ldifPath, const std::string& domainDn,
                   std::vector<std::string>& complaints);

// Whether the file holds passwords' hashes and somebody else than its owner may read it.
bool showsHashes(const std::string& ldifPath);

}  // namespace vexagent
