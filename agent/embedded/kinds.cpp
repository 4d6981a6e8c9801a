// SPDX-License-Identifier: Apache-2.0
#include "agent/embedded/kinds.h"

#include <algorithm>
#include <vector>

#include "vorn/strings.h"

namespace vexagent {
namespace {

bool has(const ldb_message* message, const char* name) {
    return !firstValue(message, name).empty();
}

bool isRefused(const ldb_message* message, std::string_view attribute, const UnixIds& ids) {
    std::vector<std::string_view> numbers;
    for (unsigned i = 0; i < message->num_elements; ++i) {
        const ldb_message_element& element = message->elements[i];
        if (!vorn::equalsIgnoreCase(element.name, attribute)) continue;
        for (unsigned value = 0; value < element.num_values; ++value)
            numbers.push_back(bytesOf(element.values[value]));
    }
    return ids.refuses(ldb_dn_get_linearized(message->dn), attribute, numbers);
}

}  // namespace

std::string_view specificClass(const ldb_message* message) {
    const ldb_message_element* classes = ldb_msg_find_element(message, "objectClass");
    if (classes == nullptr || classes->num_values == 0) return {};
    return bytesOf(classes->values[classes->num_values - 1]);
}

std::string shortCategory(const ldb_message* message) {
    return shortCategory(firstValue(message, "objectCategory"), specificClass(message));
}

bool isUnixKind(const ldb_message* message) {
    const ldb_message_element* classes = ldb_msg_find_element(message, "objectClass");
    return classes != nullptr && std::any_of(classes->values, classes->values + classes->num_values,
                                             [](const ldb_val& name) { return isUnixClass(bytesOf(name)); });
}

bool isInvalidEntry(const ldb_message* message, std::string_view category, const UnixIds& ids) {
    const UnixFacts facts = {has(message, "uidNumber"), has(message, "gidNumber"),
                             has(message, "unixHomeDirectory"),
                             has(message, "ipHostNumber") || has(message, "macAddress"),
                             isRefused(message, ownIdAttribute(category), ids)};
    return isInvalidEntry(category, facts);
}

}  // namespace vexagent
