// SPDX-License-Identifier: Apache-2.0
#include "auth/texts.h"

#include <cstring>

#include "vorn/dn.h"

#include "backend/base/slapd.h"

bool holdsNul(const berval& text) {
    return text.bv_val != nullptr && std::memchr(text.bv_val, '\0', text.bv_len) != nullptr;
}

bool namesNobody(const berval& dn) {
    return dn.bv_val != nullptr && vorn::DN::holdsNul({dn.bv_val, dn.bv_len});
}
