// SPDX-License-Identifier: Apache-2.0
#include "vorn/ulimit.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vorn {
namespace {

constexpr rlim_t kHigh = rlim_t{1} << 45;
constexpr rlim_t kLow = rlim_t{1} << 44;

// In a child, since a hard limit once lowered stays so. The exit status counts
// what went wrong.
int softLimitAfter(rlim_t soft, rlim_t hard, rlim_t expected) {
    const pid_t child = fork();
    if (child == 0) {
        const rlimit before = {soft, hard};
        rlimit after = {};
        if (setrlimit(RLIMIT_DATA, &before) != 0) _exit(10);
        if (ulimitSetData() != 0) _exit(11);
        if (getrlimit(RLIMIT_DATA, &after) != 0) _exit(12);
        _exit(after.rlim_cur == expected && after.rlim_max == hard ? 0 : 13);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(UlimitSetData, RaisesTheSoftLimitToTheHardOne) {
    EXPECT_EQ(softLimitAfter(kLow, kHigh, kHigh), 0);
}

TEST(UlimitSetData, LeavesALimitThatIsAtItsHighest) {
    EXPECT_EQ(softLimitAfter(kHigh, kHigh, kHigh), 0);
}

}  // namespace
}  // namespace vorn
