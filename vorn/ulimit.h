// SPDX-License-Identifier: Apache-2.0
// Process limits.
#pragma once

namespace vorn {

// Raises the soft limit of the data segment (RLIMIT_DATA) to the hard one, so
// that a large cache is limited by the administrator's choice only. Never lowers
// it. Returns 0, or an errno value.
int ulimitSetData();

}  // namespace vorn
