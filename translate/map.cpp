// SPDX-License-Identifier: Apache-2.0
#include "translate/map.h"

bool translation_active(const vorn::Properties* map) {
    return map != nullptr && !map->empty();
}

std::string translate_name(const vorn::Properties* map, std::string_view key, std::string_view fallback) {
    return map == nullptr ? std::string(fallback) : map->get(key, fallback);
}

std::string translation_key(std::string_view objectType, std::string_view attribute) {
    std::string key;
    key.reserve(objectType.size() + 1 + attribute.size());
    key.append(objectType).append(1, '.').append(attribute);
    return key;
}
