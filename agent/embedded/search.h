// SPDX-License-Identifier: Apache-2.0
// Running a prepared search on the embedded directory.
//
// A search visits the database once. Up to the first batch the objects are kept
// as they are found; of all others only the 16 bytes of the GUID are kept, and
// later batches are read by GUID: an object that has gone meanwhile is left out,
// one that has changed is shown as it is now. So an open search costs little, and
// holds neither a read transaction nor a database handle between two batches.
#pragma once

#include <memory>

#include "agent/directory/directory.h"
#include "agent/embedded/objects.h"

namespace vexagent {

struct Plan {
    ldb_dn* base = nullptr;
    ParseTree* tree = nullptr;   // what LDB is asked for
    ParseTree* match = nullptr;  // what its objects are then matched against; null when tree says all
};

// Where a search's outcome goes.
struct Outcome {
    Batch& first;
    std::unique_ptr<Cursor>& rest;
};

// A tree that every object matches, in the pool.
ParseTree* matchAll(void* pool);

// What it means to a client that the database could not be read.
Result readFailure(const ReadError& error);

// The handle is a lease of the source's database. Throws ReadError.
Result runSearch(const Source& source, Database::Lease& handle, const Plan& plan, const Query& query,
                 const Outcome& outcome);

}  // namespace vexagent
