// SPDX-License-Identifier: Apache-2.0
// How slapd ends when the module is built with a sanitizer; in no other build.
//
// slapd links no sanitizer: its runtime is preloaded, and waits forever in the
// destructors that run at the end of the process. So the process ends here, ahead
// of them, after what they would have done: leaks are looked for, streams flushed.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

// Each runtime defines its own; the other one's is then null.
extern "C" {
__attribute__((weak)) int __lsan_do_recoverable_leak_check();  // NOLINT(bugprone-reserved-identifier)
}

namespace {

constexpr int kLeaksFound = 98;  // what the tests give the sanitizer as its exit code

void endHere(int status, void* /*unused*/) {
    std::fflush(nullptr);
    const bool leaks = __lsan_do_recoverable_leak_check != nullptr && __lsan_do_recoverable_leak_check() != 0;
    ::_exit(leaks ? kLeaksFound : status);
}

// What is registered later runs earlier: handlers of the first request on still run.
__attribute__((constructor)) void registerEnd() {
    ::on_exit(endHere, nullptr);
}

}  // namespace
