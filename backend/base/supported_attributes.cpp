// SPDX-License-Identifier: Apache-2.0
#include "backend/base/supported_attributes.h"

#include <algorithm>

#include "backend/base/settings.h"
#include "vorn/strings.h"

namespace {

std::atomic<unsigned> version = 0;

// Whether a name of the list comes before the other. Most differ early: neither's
// length is asked for.
bool precedes(const char* listed, std::string_view name) {
    for (const char c : name) {
        const auto left = static_cast<unsigned char>(vorn::lower(*listed++));
        const auto right = static_cast<unsigned char>(vorn::lower(c));
        if (left != right || left == 0) return left < right;
    }
    return false;
}

}  // namespace

void publishSupportedAttributes(vex::UniqueStringSet names) {
    // Each cached search looks up the names that it asks for.
    std::sort(names->strings, names->strings + names->count, vorn::StringCaseLessThan());
    vexStringSet* absent = nullptr;
    if (gSupportedObjectAttrList.compare_exchange_strong(absent, names.get(), std::memory_order_acq_rel))
        static_cast<void>(names.release());
    version.fetch_add(1, std::memory_order_release);
}

unsigned supportedAttributesVersion() {
    return version.load(std::memory_order_acquire);
}

bool supportedAttributesAreKnown() {
    const vexStringSet* names = gSupportedObjectAttrList.load(std::memory_order_acquire);
    return names != nullptr && names->count > 0;
}

bool isSupportedAttribute(std::string_view name) {
    const vexStringSet* names = gSupportedObjectAttrList.load(std::memory_order_acquire);
    if (names == nullptr) return false;
    char** const end = names->strings + names->count;
    char** const found = std::lower_bound(names->strings, end, name, precedes);
    return found != end && vorn::equalsIgnoreCase(*found, name);
}
