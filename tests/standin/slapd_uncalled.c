// SPDX-License-Identifier: Apache-2.0
// What slapd gives the standard mode, for tests that link the whole module and call none of it.
#include <stdlib.h>

#define UNCALLED(name)                      \
    __attribute__((weak)) void name(void);  \
    __attribute__((weak)) void name(void) { \
        abort();                            \
    }

UNCALLED(access_allowed_mask)
UNCALLED(ad_inlist)
UNCALLED(attr_find)
UNCALLED(attr_merge)
UNCALLED(be_issuffix)
UNCALLED(ch_free)
UNCALLED(dnIsSuffixScope)
UNCALLED(dnNormalize)
UNCALLED(dnParent)
UNCALLED(dnPrettyNormal)
UNCALLED(entry_dup)
UNCALLED(is_ad_subtype)
UNCALLED(oc_bvfind)
UNCALLED(ordered_value_normalize)
UNCALLED(ordered_value_pretty)
UNCALLED(ordered_value_validate)
UNCALLED(slap_attr_flags)
UNCALLED(slap_bv2ad)
UNCALLED(slap_compare_entry)
UNCALLED(slap_operational_hasSubordinate)
