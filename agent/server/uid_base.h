// SPDX-License-Identifier: Apache-2.0
// Bases that name a person by the uid, as UNIX programs do.
#pragma once

#include "agent/directory/directory.h"

namespace vexagent {

// No object of these directories has a name that begins with "uid=", so a base search of
// such a name finds nothing. The gateway can be told to search for the person then. It
// sends the client's base, and the filter "(&(objectClass=TYPE)(ATTRIBUTE=uid))". Only for
// such a query the base becomes its parent, and the scope the subtree.
void searchByUid(Query* query);

}  // namespace vexagent
