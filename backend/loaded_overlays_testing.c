// SPDX-License-Identifier: Apache-2.0
#include "backend/loaded_overlays_testing.h"

#include "portable.h"

#include "slap.h"

#include "slap-config.h"

static ConfigTable first_keywords[] = {
    {.name = "refint_attributes"}, {.name = "REFINT_nothing"}, {.name = NULL}};
static ConfigTable second_keywords[] = {
    {.name = "unique_uri"}, {.name = "dirgate.cache.ttl"}, {.name = "prefix-", .length = 7}, {.name = NULL}};
static ConfigOCs first = {.co_table = first_keywords};
static ConfigOCs second = {.co_table = second_keywords};

static slap_overinst overlays[] = {
    {.on_bi.bi_cf_ocs = &first}, {.on_bi.bi_cf_ocs = NULL}, {.on_bi.bi_cf_ocs = &second}};
static size_t loaded = 0;

void load_overlays(void) {
    loaded = sizeof overlays / sizeof overlays[0];
}

void unload_overlays(void) {
    loaded = 0;
}

/* slapd's own: the first one, or the one after another. */
slap_overinst* overlay_next(slap_overinst* previous) {
    slap_overinst* const next = previous == NULL ? overlays : previous + 1;
    return next < overlays + loaded ? next : NULL;
}
