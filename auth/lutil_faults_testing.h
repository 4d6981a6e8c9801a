// SPDX-License-Identifier: Apache-2.0
// Lets tests decide what slapd's random bytes and hashes are. The test program is
// linked so that the calls come here first.
#pragma once

#include <functional>
#include <string>
#include <vector>

struct LutilFaults {
    bool entropyFails = false;
    std::string entropy;  // these bytes instead of random ones; empty: the real ones
    bool hashFails = false;
    bool record = false;
    std::vector<std::string> hashed;  // with record: the texts that were hashed
    std::function<void()> onHash;     // runs while something is hashed
};

// The process's one; tests that use threads leave it alone.
LutilFaults& lutilFaults();
