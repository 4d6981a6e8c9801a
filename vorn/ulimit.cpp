// SPDX-License-Identifier: Apache-2.0
#include "vorn/ulimit.h"

#include <sys/resource.h>

#include <cerrno>

namespace vorn {

int ulimitSetData() {
    rlimit limit;
    if (getrlimit(RLIMIT_DATA, &limit) != 0) return errno;
    if (limit.rlim_cur == limit.rlim_max) return 0;
    limit.rlim_cur = limit.rlim_max;
    return setrlimit(RLIMIT_DATA, &limit) == 0 ? 0 : errno;
}

}  // namespace vorn
