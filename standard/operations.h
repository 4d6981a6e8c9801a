// SPDX-License-Identifier: Apache-2.0
// The operations of the standard mode: what slapd calls in place of the exact mode's, or
// where that has nothing. Each sends its one result. They run concurrently on slapd's
// worker threads.
#pragma once

#include "backend/base/slapd_fwd.h"

namespace standard {

// Makes the kinds of the translation map and of slapd's schema. 0; or 1 after a complaint
// that names file, line and reason.
int openDatabase(BackendDB* be, ConfigReply* reply);

int search(Operation* op, SlapReply* rs);
int compare(Operation* op, SlapReply* rs);
// Add, delete, modify and rename: nothing is written here.
int refuseWrite(Operation* op, SlapReply* rs);

// For overlays and access control. Gives an entry of the caller's, who releases it.
int getEntry(Operation* op, berval* ndn, ObjectClass* objectClass, AttributeDescription* attribute,
             int forWriting, Entry** entry);
int releaseEntry(Operation* op, Entry* entry, int forWriting);

// hasSubordinates, which slapd asks for where a client wants it.
int operational(Operation* op, SlapReply* rs);
int hasSubordinates(Operation* op, Entry* entry, int* has);

}  // namespace standard
