// SPDX-License-Identifier: Apache-2.0
#include "agent/process.h"

#include <malloc.h>
#include <sys/prctl.h>
#include <sys/resource.h>

namespace vexagent {
namespace {

[[maybe_unused]] constexpr int kFreed = 0x5a;  // what freed memory is overwritten with

}  // namespace

void closeMemory() {
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    const rlimit none{};
    ::setrlimit(RLIMIT_CORE, &none);
    ::prctl(PR_SET_DUMPABLE, 0);
    // libldap composes a bind in a buffer of its own, password and all, and frees it as it
    // is; functions for its memory that overwrite it are passed over by all but a few of its
    // calls. The C library overwrites all but the smallest blocks (which such a buffer never
    // is) when they are freed.
    ::mallopt(M_PERTURB, kFreed);
#endif
}

void raiseDescriptorLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace vexagent
