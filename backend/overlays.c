// SPDX-License-Identifier: Apache-2.0
#include "backend/overlays.h"

#include "portable.h"

#include "slap.h"

#include "slap-config.h"

/* As slapd itself compares: a keyword with a length is a prefix. */
static int matches(const ConfigTable* keyword, const char* name) {
    if (keyword->length != 0 && strncasecmp(name, keyword->name, (size_t)keyword->length) == 0) return 1;
    return strcasecmp(name, keyword->name) == 0;
}

int overlay_knows_directive(const char* name) {
    for (slap_overinst* overlay = overlay_next(NULL); overlay != NULL; overlay = overlay_next(overlay)) {
        const ConfigOCs* configuration = overlay->on_bi.bi_cf_ocs;
        if (configuration == NULL) continue;
        for (const ConfigTable* keyword = configuration->co_table; keyword->name != NULL; keyword++) {
            if (matches(keyword, name)) return 1;
        }
    }
    return 0;
}
