// SPDX-License-Identifier: Apache-2.0
#include "agent/embedded/filter.h"

#include <gtest/gtest.h>
#include <ldap.h>

#include "agent/directory/identifiers.h"

namespace vexagent {
namespace {

// The filter as LDB gets it; "none" and "all" for the foregone ones.
std::string rewritten(const std::string& text, bool zone = false) {
    const Pool pool = newPool();
    const Talloc<ldb_context> ldb = newLdb();
    ParseTree* tree = nullptr;
    if (!parseFilter(pool.get(), text, tree).ok()) return "bad";
    FilterContext context;
    context.ldb = ldb.get();
    context.rootDn = "DC=example,DC=com";
    if (zone)
        context.groupsOf = [](std::string_view) { return std::vector<std::string>{std::string(16, 'g')}; };
    switch (rewriteFilter(pool.get(), tree, context)) {
        case Selection::Nothing:
            return "none";
        case Selection::All:
            return "all";
        case Selection::Some:
            break;
    }
    return ldb_filter_from_tree(pool.get(), tree);
}

struct Case {
    const char* filter;
    const char* expected;
};

TEST(RewriteFilter, Cases) {
    const Case cases[] = {
        {"", "all"},
        {"(cn=a)", "(cn=a)"},
        {"(cn=a*b)", "(cn=a*b)"},
        {"(cn=\\28x\\29)", "(cn=\\28x\\29)"},
        // secrets are undefined, whatever stands above
        {"(userPassword=x)", "none"},
        {"(!(userPassword=x))", "none"},
        {"(!(!(unicodePwd=*)))", "none"},
        {"(&(cn=a)(userPassword=x*))", "none"},
        {"(|(cn=a)(userPassword>=x))", "(cn=a)"},
        {"(!(&(cn=a)(userPassword=x)))", "(!(cn=a))"},
        {"(!(|(cn=a)(userPassword=x)))", "none"},
        {"(UNIXUSERPASSWORD=a)", "none"},
        // so is what is called by its number: no schema tells what it means
        {"(2.5.4.35=x)", "none"},
        {"(!(OID.2.5.4.35=*))", "none"},
        {"(|(cn=a)(1.2.840.113556.1.4.1910=S3c*))", "(cn=a)"},
        {"(sambaNTPassword=x*)", "none"},
        // what no stored number can equal
        {"(uidNumber=abc)", "none"},
        {"(!(uidNumber=abc))", "all"},
        {"(uidNumber=12)", "(uidNumber=12)"},
        {"(uidNumber=012)", "(uidNumber=12)"},
        {"(uidNumber=12x)", "none"},
        {"(gidNumber>=x)", "none"},
        // short names and the agent's own
        {"(objectCategory=person)",
         "(objectCategory=CN=Person,CN=Schema,CN=Configuration,DC=example,DC=com)"},
        {"(objectCategory=user)", "(objectCategory=CN=Person,CN=Schema,CN=Configuration,DC=example,DC=com)"},
        {"(_objectCategory=Group)", "(objectCategory=CN=Group,CN=Schema,CN=Configuration,DC=example,DC=com)"},
        {"(objectCategory=CN=X,DC=y)", "(objectCategory=CN=X,DC=y)"},
        {"(_dn=cn=a, dc=example,dc=com)", "(distinguishedName=cn=a,dc=example,dc=com)"},
        {"(_dn=nonsense)", "none"},
        {"(_GUID=nonsense)", "none"},
        {"(_nssEntryInvalid=*)", "(own-nssEntryInvalid=*)"},
        {"_dn=dc=a", "(distinguishedName=dc=a)"},
        {"(objectSid=S-1-x)", "none"},
        // selective first
        {"(&(objectClass=User)(sAMAccountName=a))", "(&(sAMAccountName=a)(objectClass=User))"},
        {"(&(gidNumber=1)(objectClass=Group))", "(&(gidNumber=1)(objectClass=Group))"},
        {"(&(objectClass=User)(objectClass=Computer))", "(&(objectClass=Computer)(objectClass=User))"},
        // memberUid is an attribute like any other outside the zone's view
        {"(memberUid=ann)", "(memberUid=ann)"},
        {"(((", "bad"},
        {"(cn=a", "bad"},
        {"()", "bad"},
    };
    for (const Case& c : cases) EXPECT_EQ(rewritten(c.filter), c.expected) << c.filter;
    EXPECT_EQ(rewritten(std::string("(cn=a)\0(", 8)), "bad");
}

TEST(RewriteFilter, TextFormsBecomeStoredBytes) {
    EXPECT_EQ(rewritten("(_GUID=01020304-0506-0708-090a-0b0c0d0e0f10)"),
              "(objectGUID=\\04\\03\\02\\01\\06\\05\\08\\07\\09\\0A\\0B\\0C\\0D\\0E\\0F\\10)");
    EXPECT_EQ(rewritten("(objectSid=S-1-5-32-544)"),
              "(objectSid=\\01\\02\\00\\00\\00\\00\\00\\05\\20\\00\\00\\00\\20\\02\\00\\00)");
}

TEST(RewriteFilter, MemberUidInTheZonesViewIsThePersonsGroups) {
    EXPECT_EQ(rewritten("(memberUid=ann)", true), "(|(memberUid=ann)(objectGUID=gggggggggggggggg))");
    EXPECT_EQ(rewritten("(memberUid=*)", true), "(|(memberUid=*)(member=*))");
    EXPECT_EQ(rewritten("(!(memberUid=ann))", true), "(!(|(memberUid=ann)(objectGUID=gggggggggggggggg)))");
}

TEST(ParseFilter, ABadFilterIsTheClientLibrarysFilterError) {
    const Pool pool = newPool();
    ParseTree* tree = nullptr;
    const Result result = parseFilter(pool.get(), "(", tree);
    EXPECT_EQ(result.code, VEX_BAD_FILTER);
    EXPECT_EQ(result.errSystem, VEX_ERR_LDAP);
    EXPECT_EQ(result.errCode, LDAP_FILTER_ERROR);
    EXPECT_EQ(result.errText, "bad search filter");
}

TEST(ParseFilter, DepthIsBounded) {
    std::string deep;
    for (int i = 0; i < 100'000; ++i) deep += "(!";
    deep += "(cn=a)" + std::string(100'000, ')');
    EXPECT_EQ(rewritten(deep), "bad");
}

TEST(QuickFilter, IsOneThatIndexesLeadTo) {
    const std::pair<const char*, bool> cases[] = {
        {"(sAMAccountName=a)", true},
        {"(&(objectClass=User)(uidNumber=1))", true},
        {"(&(objectClass=Group)(gidNumber=1))", true},
        {"(|(uid=a)(cn=a))", true},
        {"(|(uid=a)(loginShell=x))", false},
        {"(memberUid=a)", true},
        {"(_dn=dc=a)", true},
        {"(objectClass=User)", false},
        {"(uid=a*)", false},
        {"(!(uid=a))", false},
        {"", false},
    };
    for (const auto& [filter, quick] : cases) {
        const Pool pool = newPool();
        ParseTree* tree = nullptr;
        ASSERT_TRUE(parseFilter(pool.get(), filter, tree).ok()) << filter;
        EXPECT_EQ(isQuickFilter(tree), quick) << filter;
    }
}

}  // namespace
}  // namespace vexagent
