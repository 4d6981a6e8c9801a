// SPDX-License-Identifier: Apache-2.0
#include "backend/base/settings.h"

bool gCacheEnabled = false;
std::int64_t gCacheMaxLists = 100;
std::int64_t gCacheMaxObjects = 3000;
std::uint64_t gCacheMaxBytes = 256 << 20;
std::int64_t gCacheTTL = 3600;
std::int64_t gCacheNegTTL = 300;
float gCacheHashLoadFactor = 1.3F;
std::int64_t gCredExpire = 300;
std::int64_t gCredMax = 10000;
std::int64_t gLogInterval = 0;
bool gPreferCacheAuth = true;
bool gFetchByDnUID = false;
bool gNetgroupUseRfc2307 = false;
bool gPagedCritical = false;
bool gLdapStandard = false;
bool gSearchReportErrors = false;

vorn::Properties* gTranslationMap = nullptr;
std::atomic<vexStringSet*> gSupportedObjectAttrList{nullptr};
