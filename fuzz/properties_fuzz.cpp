// SPDX-License-Identifier: Apache-2.0
// The properties parser takes any bytes: it answers with a table or with a
// PropertiesException, and the table it makes is whole.
#include <cstdint>
#include <cstdlib>

#include "vorn/properties.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    vorn::Properties properties;
    try {
        properties.parse({reinterpret_cast<const char*>(data), size}, "fuzz");
    } catch (const vorn::PropertiesException&) {
        if (!properties.empty()) std::abort();
    }
    const auto entries = properties.getMap("");
    for (const auto& [key, value] : *entries) {
        const bool nul = (key + value).find('\0') != std::string::npos;
        if (key.empty() || nul || properties.get(key, "") != value || properties.origin(key).empty())
            std::abort();
    }
    return 0;
}
