#include "backend/supported_attributes.h"

#include <algorithm>

#include "backend/settings.h"
#include "vorn/strings.h"

void publishSupportedAttributes(vex::UniqueStringSet names) {
    // Each cached search looks up the names that it asks for.
    std::sort(names->strings, names->strings + names->count, vorn::StringCaseLessThan());
    vexStringSet* absent = nullptr;
    if (gSupportedObjectAttrList.compare_exchange_strong(absent, names.get(), std::memory_order_acq_rel))
        static_cast<void>(names.release());
}

bool supportedAttributesAreKnown() {
    const vexStringSet* names = gSupportedObjectAttrList.load(std::memory_order_acquire);
    return names != nullptr && names->count > 0;
}

bool isSupportedAttribute(std::string_view name) {
    const vexStringSet* names = gSupportedObjectAttrList.load(std::memory_order_acquire);
    return names != nullptr && std::binary_search(names->strings, names->strings + names->count, name,
                                                  vorn::StringCaseLessThan());
}
