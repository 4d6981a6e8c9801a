// SPDX-License-Identifier: Apache-2.0
// The bucket counts that a hash table may have.
#pragma once

#include <cstddef>

// The smallest prime of a fixed ascending list of 40, from 5 to 4294967291, that
// is not below the request; the last one when the request is above them all.
std::size_t primeBuckets(std::size_t request);
