// SPDX-License-Identifier: Apache-2.0
#include "search/page_name.h"

#include <sys/random.h>

std::optional<PageName> PageName::draw() {
    PageName name;
    while (name.first == 0 || name.second == 0) {
        if (getrandom(&name, sizeof name, 0) != static_cast<ssize_t>(sizeof name)) return std::nullopt;
    }
    return name;
}
