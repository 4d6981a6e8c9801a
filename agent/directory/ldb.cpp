// SPDX-License-Identifier: Apache-2.0
#include "agent/directory/ldb.h"

#include <tevent.h>

#include <cstdlib>
#include <mutex>
#include <new>

namespace vexagent {
namespace {

#ifdef ZX_SANITIZED
// LDB loads its modules with RTLD_DEEPBIND, which sanitizers cannot run under;
// this is its own switch.
[[maybe_unused]] const int kNoDeepBind = ::setenv("LDB_MODULES_DISABLE_DEEPBIND", "1", 1);
#endif

}  // namespace

Talloc<ldb_context> newLdb() {
    static std::mutex mutex;
    const std::lock_guard lock(mutex);
    // LDB makes a context of events for each request and drops it after; this kind costs
    // no system call. Said once: requests of other threads read the name without a lock,
    // and saying it again would free it.
    static std::once_flag said;
    std::call_once(said, tevent_set_default_backend, "poll");
    Talloc<ldb_context> ldb(ldb_init(nullptr, nullptr));
    if (!ldb) throw std::bad_alloc();
    return ldb;
}

}  // namespace vexagent
