// SPDX-License-Identifier: Apache-2.0
// Which object a name means.
#pragma once

#include <string>
#include <vector>

#include "agent/embedded/database.h"

namespace vexagent {

// What names hang on.
struct NameRules {
    std::string domain;                        // the joined domain's DNS name
    std::vector<std::string> loginAttributes;  // that a rewritten "cn=" may show
};

// The objects that a name may mean, in the pool.
struct Named {
    ldb_message* real = nullptr;          // by its own DN, its principal name or its account name
    std::vector<ldb_message*> rewritten;  // by a DN whose leading "cn=" was rewritten

    // How many objects that are.
    std::size_t count() const { return (real != nullptr ? 1 : 0) + rewritten.size(); }
    // The one object, or null when there is none or more than one.
    ldb_message* only() const;
};

// By a DN. A DN whose first RDN is "cn=VALUE" may have been rewritten: it then
// means the objects directly below its parent that hold VALUE in one of the
// login attributes.
Named findByDn(Handle& handle, void* pool, const std::string& dn, const NameRules& rules);

// By a DN, name@realm or DOMAIN\name. name@realm is a userPrincipalName, or else
// the sAMAccountName where the realm is the joined domain; DOMAIN is the
// domain's DNS name or the first label of it.
Named findByLoginName(Handle& handle, void* pool, const std::string& name, const NameRules& rules);

}  // namespace vexagent
