// Bases that name a person by the uid, as UNIX programs do.
#pragma once

#include "agent/directory/directory.h"

namespace vexagent {

// Directories of this kind name nobody "uid=...": a base search of such a name finds
// nothing. The gateway can be told to look for the person then: it sends the base as
// the client has it, and the filter "(&(objectClass=TYPE)(ATTRIBUTE=uid))". Of such a
// query, and of no other, the base becomes the parent and the scope its subtree.
void searchByUid(Query* query);

}  // namespace vexagent
