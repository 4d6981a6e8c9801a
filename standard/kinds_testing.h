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

// People and groups, with attributes of every sort of rule and form. "name" means cn and sn.
inline Kinds peopleAndGroups() {
    const ShownAttribute uuid = {"entryUUID", Match::Other, Form::Uuid, {"objectGUID"}, true};
    const ShownAttribute created = {"createTimestamp", Match::Other, Form::Time, {"whenCreated"}, true};
    const ShownAttribute entryDn = {"entryDN", Match::Dn, Form::Computed, {}, true};
    Kind user = makeKind("user",
                         {{"top", {}, false},
                          {"person", {"sn", "cn"}, false},
                          {"inetOrgPerson", {}, true},
                          {"posixAccount", {"uid", "uidNumber", "homeDirectory"}, false}},
                         {{"uid", Match::Folded, Form::Same, {"sAMAccountName"}, false},
                          {"cn", Match::Folded, Form::Same, {"cn", "displayName"}, false},
                          {"sn", Match::Folded, Form::Same, {"sn"}, false},
                          {"uidNumber", Match::Number, Form::Same, {"uidNumber"}, false},
                          {"homeDirectory", Match::Exact, Form::Same, {"unixHomeDirectory"}, false},
                          {"gecos", Match::Folded, Form::Same, {"gecos"}, false},
                          {"manager", Match::Dn, Form::Same, {"manager"}, false},
                          {"memberOf", Match::Dn, Form::Computed, {}, false},
                          {"telephoneNumber", Match::Other, Form::Same, {"telephoneNumber"}, false},
                          uuid,
                          created,
                          entryDn});
    user.byType["name"] = {1, 2};
    Kind group = makeKind(
        "group", {{"top", {}, false}, {"groupOfNames", {"cn"}, true}, {"posixGroup", {"gidNumber"}, false}},
        {{"cn", Match::Folded, Form::Same, {"cn"}, false},
         {"gidNumber", Match::Number, Form::Same, {"gidNumber"}, false},
         {"memberUid", Match::Exact, Form::Same, {"memberUid"}, false},
         {"member", Match::Dn, Form::Computed, {}, false},
         uuid,
         created,
         entryDn});
    group.byType["name"] = {0};
    return {std::move(user), std::move(group)};
}

}  // namespace standard
