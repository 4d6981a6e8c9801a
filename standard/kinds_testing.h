// SPDX-License-Identifier: Apache-2.0
// Kinds for tests, made by hand.
#pragma once

#include <utility>

#include "standard/kinds.h"

namespace standard {

// Puts the attributes in place, and finds each by its own name.
inline Kind makeKind(std::string objectClass, std::vector<ShownClass> classes,
                     std::vector<ShownAttribute> attributes) {
    Kind kind;
    kind.condition = "(objectClass=" + objectClass + ")";
    kind.objectClass = std::move(objectClass);
    kind.classes = std::move(classes);
    kind.attributes = std::move(attributes);
    for (std::size_t at = 0; at < kind.attributes.size(); ++at)
        kind.byType[kind.attributes[at].name].push_back(at);
    return kind;
}

// One that makes an entry of any object that has these; what it allows does not matter here.
inline ShownClass makeClass(std::string name, std::vector<std::string> needs = {}) {
    return {std::move(name), std::move(needs), {}, false};
}

// People and groups, with attributes of every sort of rule and form. "name" means cn and sn.
inline Kinds peopleAndGroups() {
    const ShownAttribute uuid = {"entryUUID", Match::Other, Form::Uuid, {"objectGUID"}, true};
    const ShownAttribute created = {"createTimestamp", Match::Other, Form::Time, {"whenCreated"}, true};
    const ShownAttribute entryDn = {"entryDN", Match::Other, Form::Computed, {}, true};
    Kind user = makeKind("user",
                         {makeClass("top"), makeClass("person", {"sn", "cn"}), makeClass("inetOrgPerson"),
                          makeClass("posixAccount", {"uid", "uidNumber", "homeDirectory"})},
                         {{"uid", Match::Folded, Form::Same, {"sAMAccountName"}, false},
                          {"cn", Match::Folded, Form::Same, {"displayName"}, false},
                          {"sn", Match::Folded, Form::Same, {"sn"}, false},
                          {"uidNumber", Match::Number, Form::Same, {"uidNumber"}, false},
                          {"homeDirectory", Match::Exact, Form::Same, {"unixHomeDirectory"}, false},
                          {"gecos", Match::Folded, Form::Same, {"gecos"}, false},
                          {"mobile", Match::Folded, Form::Same, {"mobile", "otherMobile"}, false},
                          {"manager", Match::Dn, Form::Same, {"manager"}, false},
                          {"memberOf", Match::Dn, Form::Computed, {}, false},
                          {"telephoneNumber", Match::Other, Form::Same, {"telephoneNumber"}, false},
                          uuid,
                          created,
                          entryDn});
    user.sort = Sort::Person;
    user.byType["name"] = {1, 2};
    Kind group = makeKind("group",
                          {makeClass("top"), makeClass("groupOfNames", {"cn", "member"}),
                           makeClass("posixGroup", {"gidNumber"})},
                          {{"cn", Match::Folded, Form::Same, {"sAMAccountName"}, false},
                           {"gidNumber", Match::Number, Form::Same, {"gidNumber"}, false},
                           {"memberUid", Match::Exact, Form::Same, {"memberUid"}, false},
                           {"member", Match::Dn, Form::Computed, {}, false},
                           uuid,
                           created,
                           entryDn});
    group.sort = Sort::Group;
    group.naming = "sAMAccountName";
    group.fallback = {makeClass("top"), makeClass("groupOfMembers", {"cn"})};
    group.byType["name"] = {0};
    return {std::move(user), std::move(group)};
}

}  // namespace standard
