// SPDX-License-Identifier: Apache-2.0
// What a load run does.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "bench/load/messages.h"

namespace load {

enum class Mode {
    Lookup,       // a search for a key of the list
    Enumeration,  // a search that is the same every time
    Paged,        // the same, page by page; an operation is one page
    Bind,         // a simple bind as a key of the list
};

struct Plan {
    Mode mode = Mode::Lookup;
    std::string host = "127.0.0.1";  // an IPv4 address
    std::uint16_t port = 0;

    // Keys replace every "%s" in the filter's text, or in bindDn.
    std::vector<std::string> keys;
    std::uint64_t seed = 1;
    SearchSpec search;
    std::string bindDn;
    std::string bindPassword;
    std::uint32_t pageSize = 0;

    // As whom the connections of a search are bound before anything is counted.
    std::string loginDn;  // empty: anonymous
    std::string loginPassword;

    unsigned connections = 1;
    unsigned outstanding = 1;  // requests at once on each connection
    bool prime = false;        // each key is asked for once beforehand
    double warmup = 0.5;       // seconds
    double seconds = 2;
    std::uint64_t count = 0;  // not 0: so many operations instead, each key once, without a warm-up
    bool stepwise = false;    // measures once for each line of standard input, with the same connections

    // What every answer must be.
    std::uint32_t expectCode = 0;
    std::optional<std::uint64_t> expectEntries;  // of a search; of all pages together
    bool expectKey = false;                      // every entry holds the key that was asked for

    std::vector<pid_t> watched;  // processes whose use of the processor is told
};

// Reads the command line. Throws std::invalid_argument.
Plan readPlan(int argc, char** argv);

extern const char kUsage[];

}  // namespace load
