// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/objects.h"

#include <algorithm>

#include "agent/directory/categories.h"
#include "agent/directory/identifiers.h"
#include "agent/directory/member_naming.h"
#include "vex/vex.h"
#include "vorn/numbers.h"
#include "vorn/secret_names.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

// What every object is made from, whatever is asked for.
constexpr const char* kAlways[] = {"objectGUID", "objectClass",       "objectCategory", "uidNumber",
                                   "gidNumber",  "unixHomeDirectory", "ipHostNumber",   "macAddress"};
// For a group's members.
constexpr const char* kMembers[] = {"member", "memberUid", "objectSid"};
// For made ids.
constexpr const char* kIds[] = {"objectSid", "primaryGroupID", "sAMAccountName"};

bool holds(const std::vector<std::string>& names, std::string_view name) {
    return std::any_of(names.begin(), names.end(),
                       [name](const std::string& other) { return vorn::equalsIgnoreCase(other, name); });
}

bool isWanted(const View& view, std::string_view name) {
    return view.attributes.empty() || holds(view.attributes, name) || holds(view.attributes, "*");
}

void addOnce(std::vector<std::string>& names, std::string_view name) {
    if (!holds(names, name)) names.emplace_back(name);
}

// Made attributes of an entry that lacks them.
struct Made {
    std::optional<std::uint32_t> uidNumber;
    std::optional<std::uint32_t> gidNumber;
    std::string home;
};

Made makeIds(const Entry& entry, const std::string& category, const Ids& ids) {
    const bool person = category == AD_USER_CATEGORY;
    if (!ids.enabled() || (!person && category != "Group")) return {};
    Made made;
    const std::optional<std::uint32_t> own = ids.idOf(entry.first("objectSid"));
    if (person && entry.first("uidNumber").empty()) made.uidNumber = own;
    if (entry.first("gidNumber").empty()) {
        const auto rid = vorn::parseNumber<std::uint32_t>(entry.first("primaryGroupID"));
        made.gidNumber = person ? ids.idOf(ids.sidWith(rid.value_or(0))) : own;
    }
    if (person && entry.first("unixHomeDirectory").empty() && own)
        made.home = ids.homeOf(std::string(entry.first("sAMAccountName")));
    return made;
}

// Whether the number that stands for it, its own or a made one, is none that hosts are shown.
bool isRefused(const Entry& entry, const std::string& category, const Made& made, const UnixIds& ids) {
    const std::string_view name = ownIdAttribute(category);
    if (name.empty()) return false;
    std::vector<std::string_view> numbers;
    if (const Attribute* stored = entry.find(name))
        numbers.assign(stored->values.begin(), stored->values.end());
    const auto& id = category == "Group" ? made.gidNumber : made.uidNumber;
    const std::string text = id ? std::to_string(*id) : "";
    if (id) numbers.push_back(text);
    return ids.refuses(entry.dn, name, numbers);
}

bool isInvalid(const Entry& entry, const std::string& category, const Made& made) {
    const auto has = [&](const char* name) { return !entry.first(name).empty(); };
    const UnixFacts facts = {has("uidNumber") || made.uidNumber, has("gidNumber") || made.gidNumber,
                             has("unixHomeDirectory") || !made.home.empty(),
                             has("ipHostNumber") || has("macAddress")};
    return isInvalidEntry(category, facts);
}

void addMade(Object& object, const View& view, const Made& made) {
    const auto add = [&](const char* name, std::string value) {
        if (isWanted(view, name)) object.push_back({name, {std::move(value)}});
    };
    if (made.uidNumber) add("uidNumber", std::to_string(*made.uidNumber));
    if (made.gidNumber) add("gidNumber", std::to_string(*made.gidNumber));
    if (!made.home.empty()) add("unixHomeDirectory", made.home);
}

}  // namespace

std::vector<std::string> attributesFor(const View& view, const Ids& ids) {
    std::vector<std::string> names;
    const bool all = view.attributes.empty() || holds(view.attributes, "*");
    if (all) names.emplace_back("*");
    for (const std::string& name : view.attributes)
        if (!name.empty() && name[0] != '_' && name != "1.1" && !vorn::isSecretName(name))
            addOnce(names, name);
    if (all) return names;
    for (const char* name : kAlways) addOnce(names, name);
    if (view.zone && holds(view.attributes, "memberUid"))
        for (const char* name : kMembers) addOnce(names, name);
    if (ids.enabled())
        for (const char* name : kIds) addOnce(names, name);
    return names;
}

std::string categoryOf(const Entry& entry) {
    const Attribute* classes = entry.find("objectClass");
    const std::string_view specific =
        classes == nullptr || classes->values.empty() ? std::string_view() : classes->values.back();
    return shortCategory(entry.first("objectCategory"), specific);
}

bool isUnixKind(const Entry& entry) {
    const Attribute* classes = entry.find("objectClass");
    return classes != nullptr && std::any_of(classes->values.begin(), classes->values.end(), isUnixClass);
}

bool showsMembers(const Entry& entry, const View& view) {
    return view.zone && isWanted(view, "memberUid") && categoryOf(entry) == "Group";
}

std::string memberName(const Entry& entry, const Ids& ids, Naming naming) {
    if (categoryOf(entry) != AD_USER_CATEGORY) return {};
    const bool numbered = !entry.first("uidNumber").empty() || ids.idOf(entry.first("objectSid"));
    return nameOfMember({entry.first("uid"), entry.first("sAMAccountName"), numbered}, naming);
}

Object makeObject(const Entry& entry, const View& view, const Ids& ids,
                  const std::vector<std::string>* members, Part part) {
    Object object;
    object.reserve(entry.attributes.size() + 7);
    const std::string category = categoryOf(entry);
    const Made made = makeIds(entry, category, ids);
    object.push_back({AD_OBJECT_DN_TEXT, {entry.dn}});
    object.push_back({AD_OBJECT_GUID_TEXT, {guidText(entry.first("objectGUID"))}});
    object.push_back({VORN_OBJECT_CATEGORY, {category}});
    if (isRefused(entry, category, made, ids.allowed()) ||
        (part == Part::Whole && isInvalid(entry, category, made)))
        object.push_back({VORN_NSSENTRY_INVALID, {"TRUE"}});
    for (const Attribute& attribute : entry.attributes) {
        if (attribute.values.empty() || vorn::isSecretName(attribute.name) || !isWanted(view, attribute.name))
            continue;
        if (members != nullptr && vorn::equalsIgnoreCase(attribute.name, "memberUid")) continue;
        object.push_back(attribute);
    }
    addMade(object, view, made);
    if (members != nullptr) addMembers(*members, object);
    return object;
}

}  // namespace vexagent
