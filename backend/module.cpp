// SPDX-License-Identifier: Apache-2.0
// The module's entry and the hooks of its life.

#include <cstddef>
#include <cstring>
#include <exception>

#include "auth/bind.h"
#include "auth/credentials.h"
#include "auth/password_change.h"
#include "backend/backend.h"
#include "backend/base/log.h"
#include "cache/search_cache.h"
#include "search/entries.h"
#include "search/handles.h"
#include "search/search.h"
#include "standard/operations.h"
#include "vex/vex.h"
#include "vorn/thread.h"
#include "vorn/ulimit.h"

#include "backend/base/slapd.h"

namespace {

BackendInfo back_vex_info;
char back_vex_type[] = "zanthedx";

// The hooks lie side by side in the record, from the one behind bi_init to the flags.
void clearHooks(BackendInfo* bi) {
    constexpr std::size_t kFirst = offsetof(BackendInfo, bi_config);
    std::memset(reinterpret_cast<char*>(bi) + kFirst, 0, offsetof(BackendInfo, bi_flags) - kFirst);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int init_module(int /*argc*/, char* /*argv*/[]) try {
    vorn::ulimitSetData();
    vorn::Thread::SetThreadsActive(true);
    std::memset(&back_vex_info, 0, sizeof back_vex_info);
    back_vex_info.bi_type = back_vex_type;
    back_vex_info.bi_init = vex_back_initialize;
    backend_add(&back_vex_info);
    return 0;
} catch (const std::exception& error) {
    JError("the module cannot start: %s", error.what());
    return 1;
}

int vex_back_initialize(BackendInfo* bi) {
    // Read-only: whatever is not named here is null, and slapd answers it.
    clearHooks(bi);
    bi->bi_config = vex_back_config;
    bi->bi_db_config = vex_back_db_config;
    bi->bi_db_init = vex_back_db_init;
    bi->bi_db_destroy = vex_back_destroy;
    bi->bi_op_bind = vex_back_bind;
    bi->bi_connection_destroy = vex_conn_destroy;
    installHooks(bi, false);

    back_vex_creds = new CredManager;
    back_vex_search_handle = new SearchHandleManager;
    return 0;
}

void installHooks(BackendInfo* bi, bool standard) {
    bi->bi_db_open = standard ? standard::openDatabase : nullptr;
    bi->bi_op_search = standard ? standard::search : vex_back_search;
    bi->bi_op_compare = standard ? standard::compare : nullptr;
    bi->bi_op_add = standard ? standard::refuseWrite : nullptr;
    bi->bi_op_delete = bi->bi_op_add;
    bi->bi_op_modify = bi->bi_op_add;
    bi->bi_op_modrdn = bi->bi_op_add;
    bi->bi_extended = standard ? vex_back_extended : nullptr;
    bi->bi_operational = standard ? standard::operational : nullptr;
    bi->bi_has_subordinates = standard ? standard::hasSubordinates : nullptr;
    bi->bi_entry_get_rw = standard ? standard::getEntry : nullptr;
    bi->bi_entry_release_rw = standard ? standard::releaseEntry : nullptr;
}

int vex_back_open(BackendInfo* bi) {
    bi->bi_controls = slap_known_controls;
    return 0;
}

int vex_back_db_init(BackendDB* /*be*/, ConfigReply* /*reply*/) {
    return 0;
}

// slapd calls this once for each database of this type; the state is the
// module's, so the first call ends it. No operation is in flight any more.
int vex_back_destroy(BackendDB* /*be*/, ConfigReply* /*reply*/) {
    static bool ended = false;
    if (ended) return 0;
    ended = true;

    if (back_vex_creds != nullptr) {
        back_vex_creds->clearCreds();
        delete back_vex_creds;
    }
    if (back_vex_search_handle != nullptr) {
        back_vex_search_handle->clearAllSearchHandle();
        delete back_vex_search_handle;
    }
    SearchCacheManager::Destroy();
    EntryMaker::forgetRefused();
    if (vexStringSet* names = gSupportedObjectAttrList.load()) vexFreeStringSet(names);
    return 0;
}

int vex_conn_destroy(BackendDB* /*be*/, Connection* connection) try {
    const unsigned long id = connection->c_connid;
    JPrintf("vex connection id %lu being destroyed", id);
    back_vex_creds->delCreds(id);
    back_vex_search_handle->delSearchHandle(id);
    return 0;
} catch (const std::exception& error) {
    JError("vex connection id %lu: %s", connection->c_connid, error.what());
    return 0;
}
