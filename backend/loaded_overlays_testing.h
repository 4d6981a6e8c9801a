// SPDX-License-Identifier: Apache-2.0
// Overlays that slapd has loaded, for tests: none at first.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// One that knows refint_attributes and REFINT_nothing, one without a configuration, and
// one that knows unique_uri, dirgate.cache.ttl and all that begins with "prefix-".
void load_overlays(void);
void unload_overlays(void);

#ifdef __cplusplus
}
#endif
