// SPDX-License-Identifier: Apache-2.0
#include "agent/embedded/objects.h"

#include <algorithm>

#include "agent/directory/identifiers.h"
#include "agent/directory/member_naming.h"
#include "agent/embedded/kinds.h"
#include "vorn/secret_names.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

bool isWanted(const View& view, std::string_view name) {
    return view.attributes.empty() ||
           std::any_of(view.attributes.begin(), view.attributes.end(), [name](const std::string& wanted) {
               return wanted == "*" || vorn::equalsIgnoreCase(wanted, name);
           });
}

void addStored(Object& object, const ldb_message_element& element) {
    Attribute attribute{element.name, {}};
    attribute.values.reserve(element.num_values);
    for (unsigned i = 0; i < element.num_values; ++i)
        attribute.values.emplace_back(bytesOf(element.values[i]));
    object.push_back(std::move(attribute));
}

}  // namespace

Object makeObject(Handle& handle, const Source& source, const ldb_message* message, const View& view) {
    Object object;
    object.reserve(message->num_elements + 4);
    const std::string category = shortCategory(message);
    object.push_back({AD_OBJECT_DN_TEXT, {ldb_dn_get_linearized(message->dn)}});
    object.push_back({AD_OBJECT_GUID_TEXT, {guidText(firstValue(message, "objectGUID"))}});
    object.push_back({VORN_OBJECT_CATEGORY, {category}});
    if (isInvalidEntry(message, category, source.ids)) object.push_back({VORN_NSSENTRY_INVALID, {"TRUE"}});

    const bool computed = view.zone && category == "Group";
    for (unsigned i = 0; i < message->num_elements; ++i) {
        const ldb_message_element& element = message->elements[i];
        if (element.num_values == 0 || !isWanted(view, element.name) || vorn::isSecretName(element.name))
            continue;
        if (computed && vorn::equalsIgnoreCase(element.name, "memberUid")) continue;
        addStored(object, element);
    }
    if (computed && isWanted(view, "memberUid")) {
        addMembers(*source.memberships.of(handle, message, view.naming), object);
    }
    return object;
}

std::size_t objectBytes(const Object& object) {
    std::size_t bytes = 64;
    for (const Attribute& attribute : object) {
        bytes += 24 + attribute.name.size();
        for (const std::string& value : attribute.values) bytes += 12 + value.size();
    }
    return bytes;
}

}  // namespace vexagent
