// SPDX-License-Identifier: Apache-2.0
#include "agent/server/uid_base.h"

#include <gtest/gtest.h>
#include <ldap.h>

#include <string>

namespace vexagent {
namespace {

Query query(const std::string& base, const std::string& filter, int scope = LDAP_SCOPE_BASE) {
    Query made;
    made.base = base;
    made.filter = filter;
    made.scope = scope;
    return made;
}

TEST(UidBase, BecomesASearchBelowTheParentForTheOneWhoIsAskedFor) {
    const struct {
        const char* base;
        const char* filter;
        const char* parent;
    } cases[] = {
        {"uid=ann,ou=People,dc=x", "(&(objectClass=User)(sAMAccountName=ann))", "ou=People,dc=x"},
        {"UID=ann, dc=x", "(&(objectClass=User)(sAMAccountName=ANN))", "dc=x"},
        {"uid=a\\2Cb,dc=x", "(&(objectClass=User)(sAMAccountName=a\\2Cb))", "dc=x"},
        {"uid=*,dc=x", "(&(objectClass=User)(sAMAccountName=\\2A))", "dc=x"},
        {"uid=zo\xC3\xAB,dc=x", "(&(objectClass=User)(sAMAccountName=zo\\C3\\AB))", "dc=x"},
    };
    for (const auto& one : cases) {
        Query made = query(one.base, one.filter);
        searchByUid(&made);
        EXPECT_EQ(made.base, one.parent);
        EXPECT_EQ(made.scope, LDAP_SCOPE_SUBTREE) << one.base;
        EXPECT_EQ(made.filter, one.filter);
    }
}

TEST(UidBase, OfAnyOtherQueryStays) {
    const std::string base = "uid=ann,dc=x";
    const std::string filter = "(&(objectClass=User)(sAMAccountName=ann))";
    const Query others[] = {
        query(base, "(objectClass=*)"),
        query(base, ""),
        query(base, "(&(objectClass=User)(sAMAccountName=bob))"),
        query(base, "(&(objectClass=User)(sAMAccountName=*))"),
        query(base, "(&(objectClass=User)(sAMAccountName=an*))"),
        query(base, "(&(objectClass=User)(sAMAccountName>=ann))"),
        query(base, "(&(objectClass=User)(sAMAccountName=ann)(mail=x))"),
        query(base, "(&(objectClass=User)(!(sAMAccountName=ann)))"),
        query(base, "(&(objectClass=User)(!sAMAccountName=ann))"),
        query(base, "(&(objectClass=User)xsAMAccountName=ann))"),
        query(base, "(|(objectClass=User)(sAMAccountName=ann))"),
        query(base, "(&(objectClass=User)(sAMAccountName=ann)"),
        query(base, "(&(objectClass=User)(sAMAccountName=\\"),
        query(base, "(&(objectClass=User)(sAMAccountName=\\zz))"),
        query(base, filter, LDAP_SCOPE_ONELEVEL),
        query(base, filter, LDAP_SCOPE_SUBTREE),
        query("cn=ann,dc=x", filter),
        query("uid=ann", filter),
        query("uid=ann+cn=b,dc=x", filter),
        query("uid=", "(&(objectClass=User)(sAMAccountName=))"),
        query("uid=,dc=x", "(&(objectClass=User)(sAMAccountName=))"),
        query("uid=ann\\", filter),
    };
    for (const Query& one : others) {
        Query made = one;
        searchByUid(&made);
        EXPECT_EQ(made.base, one.base) << one.filter;
        EXPECT_EQ(made.scope, one.scope) << one.base << " " << one.filter;
    }
}

}  // namespace
}  // namespace vexagent
