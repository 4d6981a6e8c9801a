// SPDX-License-Identifier: Apache-2.0
// The module's settings: plain globals, written only while slapd reads its
// configuration, read without locks afterwards. The defaults stand until a
// directive changes them.
#pragma once

#include <atomic>
#include <cstdint>

#include "vex/vex.h"
#include "vorn/properties.h"

extern bool gCacheEnabled;             // search cache on or off
extern std::int64_t gCacheMaxLists;    // largest number of cached result lists
extern std::int64_t gCacheMaxObjects;  // largest number of cached objects
extern std::uint64_t gCacheMaxBytes;   // largest number of bytes that the search cache holds; 0: any
extern std::int64_t gCacheTTL;         // seconds that a cached result lives
extern std::int64_t gCacheNegTTL;      // seconds that a cached empty result lives
extern float gCacheHashLoadFactor;     // maximum load factor of the cache's tables
extern std::int64_t gCredExpire;       // seconds that a cached credential lives
extern std::int64_t gCredMax;          // largest number of cached credentials
extern std::int64_t gLogInterval;      // seconds between performance lines; 0: no statistics
extern bool gPreferCacheAuth;          // ask the agent to prefer its own cached authentication
extern bool gFetchByDnUID;             // a base look-up of uid=... becomes a filter
extern bool gNetgroupUseRfc2307;       // netgroups come from the zone's RFC 2307 maps
extern bool gPagedCritical;            // list the paged results control, for clients that send it as critical
extern bool gLdapStandard;             // LDAP as the RFCs have it, in place of the exact behaviour
extern bool gSearchReportErrors;       // an incomplete agent search is a failure, never success

// The attribute translation map; null until a directive has loaded one.
extern vorn::Properties* gTranslationMap;

// The names of the attributes that agent objects can carry, sorted; null until
// publishSupportedAttributes.
extern std::atomic<vexStringSet*> gSupportedObjectAttrList;
