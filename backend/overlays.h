// SPDX-License-Identifier: Apache-2.0
// What slapd's loaded overlays are configured with.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Whether an overlay that slapd has loaded knows a directive of this name. In C,
// since the configuration tables' header is not C++.
int overlay_knows_directive(const char* name);

#ifdef __cplusplus
}
#endif
