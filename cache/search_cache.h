// The search cache: which objects a search found, and the objects.
//
// Two tables: lists of GUIDs by search key, and objects by GUID. Both expire
// entries by age and make room, one entry an insertion, by a round-robin sweep
// over their buckets.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "vex/vex.h"
#include "vorn/clock.h"
#include "vorn/lock.h"
#include "vorn/thread.h"

using GuidList = std::vector<std::string>;

class SearchCacheManager;
