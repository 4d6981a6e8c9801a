#include "cache/search_cache.h"
