// SPDX-License-Identifier: Apache-2.0
// Filters for controllers.

#include "agent/ad/filters.h"

#include <gtest/gtest.h>

#include "agent/directory/identifiers.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

ldb_context* context() {
    static const Talloc<ldb_context> ldb = newLdb();
    return ldb.get();
}

const Ids& idsOn() {
    IdOptions options;
    options.fromSid = true;
    static const Ids ids(options, sidBytes("S-1-5-21-1-2-3").value());
    return ids;
}

const Schema& schema() {
    static const Schema known = [] {
        Schema schema;
        schema.addAttribute("1.2.840.113556.1.4.1910", "unixUserPassword");
        schema.addAttribute("0.9.2342.19200300.100.1.1", "uid");
        schema.addConfidential("shoeSize");
        return schema;
    }();
    return known;
}

// What a controller is asked; groupsOf knows two groups of "ann".
std::string asked(const std::string& filter, bool typed = false, bool withIds = false, int scope = 2) {
    FilterContext rules;
    rules.ldb = context();
    rules.rootDn = "DC=example,DC=com";
    rules.schema = &schema();
    const GroupsOf groupsOf = [](std::string_view name) {
        return name == "ann" ? std::vector<std::string>{std::string(16, 'A'), std::string(16, 'B')}
                             : std::vector<std::string>{};
    };
    rules.first = [&](void* pool, ParseTree*& tree) {
        std::optional<Selection> decided = rewriteMemberAssertion(pool, tree, groupsOf);
        if (!decided && withIds) decided = rewriteIdAssertion(pool, tree, idsOn());
        return decided;
    };
    Query query;
    query.filter = filter;
    query.typed = typed;
    query.scope = scope;
    const auto found = makeAdFilter(query, rules);
    if (!found) return found.error().errText;
    return found->value_or("nothing");
}

TEST(AdFilter, BecomesWhatAControllerAnswersQuickly) {
    const std::string person = "(objectCategory=CN=Person,CN=Schema,CN=Configuration,DC=example,DC=com)";
    const std::pair<std::string, std::string> cases[] = {
        {"", "(objectClass=*)"},
        {"(uid=ann)", "(uid=ann)"},
        {"(&(objectClass=User)(sAMAccountName=ann))", "(&(sAMAccountName=ann)(objectClass=User))"},
        {"(&(objectClass=User)(gidNumber=5)(uidNumber=7))",
         "(&(uidNumber=7)(gidNumber=5)(objectClass=User))"},
        {"(objectCategory=user)", person},
        {"(_objectCategory=Person)", person},
        {"(_GUID=41414141-4141-4141-4141-414141414141)", "(objectGUID=AAAAAAAAAAAAAAAA)"},
        {"(_dn=CN=a,DC=b)", "(distinguishedName=CN=a,DC=b)"},
        {"(_other=x)", "(own-other=x)"},
        {"(uidNumber=abc)", "nothing"},
        {"(uidNumber=0042)", "(uidNumber=42)"},
        {"(unicodePwd=x)", "nothing"},
        {"(!(unicodePwd=x))", "nothing"},
        {"(uid=", "bad search filter"},
        {"(cn=a\\2ab)", "(cn=a\\2Ab)"},
        {"(cn=a*b*c)", "(cn=a*b*c)"},
        {"(memberUid=ann)", "(|(objectGUID=AAAAAAAAAAAAAAAA)(objectGUID=BBBBBBBBBBBBBBBB))"},
        {"(memberUid=ben)", "nothing"},
        {"(!(memberUid=ben))", "(objectClass=*)"},
        {"(memberUid=*)", "(|(memberUid=*)(member=*))"},
    };
    for (const auto& [filter, expected] : cases) EXPECT_EQ(asked(filter), expected) << filter;
}

TEST(AdFilter, NoNumberAndNoSecretReachesAController) {
    const std::pair<std::string, std::string> cases[] = {
        {"(0.9.2342.19200300.100.1.1=ann)", "(uid=ann)"},
        {"(OID.0.9.2342.19200300.100.1.1=a*)", "(uid=a*)"},
        {"(oid.0.9.2342.19200300.100.1.1>=a)", "(uid>=a)"},
        {"(0.9.2342.19200300.100.1.1=*)", "(uid=*)"},
        {"(0.9.2342.19200300.100.1.1:caseExactMatch:=a)", "(uid:caseExactMatch:=a)"},
        {"(1.2.840.113556.1.4.1910=S3cr*)", "nothing"},
        {"(!(OID.1.2.840.113556.1.4.1910=*))", "nothing"},
        {"(|(uid=ann)(1.2.840.113556.1.4.1910>=S))", "(uid=ann)"},
        {"(1.2.840.113556.1.4.1910:caseExactMatch:=S)", "nothing"},
        {"(1.2.3=x)", "nothing"},  // unknown
        {"(!(1.2.3=x))", "nothing"},
        {"(shoeSize=44)", "nothing"},  // confidential
        {"(!(SHOESIZE=44))", "nothing"},
        {"(uid=ann)(cn=ben)", "bad search filter"},
    };
    for (const auto& [filter, expected] : cases) EXPECT_EQ(asked(filter), expected) << filter;
}

TEST(AdFilter, ATypedOneGetsClassesOnlyWhereItNeedsThem) {
    EXPECT_EQ(asked("(sAMAccountName=ann)", true), "(sAMAccountName=ann)");
    EXPECT_EQ(asked("(objectClass=User)", true), "(objectClass=User)");
    EXPECT_EQ(asked("(|(objectClass=User)(objectCategory=x))", true).find("automount"), std::string::npos);
    EXPECT_NE(asked("(description=x)", true).find("(|(objectClass=user)(objectClass=group)"),
              std::string::npos);
    EXPECT_NE(asked("(|(objectClass=User)(description=x))", true).find("(objectClass=automount)"),
              std::string::npos);
    EXPECT_NE(asked("", true).find("(objectClass=nisNetgroup)"), std::string::npos);
    EXPECT_EQ(asked("", true, false, 0), "(objectClass=*)");
    EXPECT_EQ(asked("(description=x)", true, false, 0), "(description=x)");
}

TEST(AdFilter, MadeIdsAreFoundByTheirSids) {
    const std::string id = std::to_string(*idsOn().first() + 1104);
    const std::string found = asked("(uidNumber=" + id + ")", false, true);
    EXPECT_EQ(found.find("(|(uidNumber=" + id + ")(&(objectSid="), 0u) << found;
    EXPECT_NE(found.find("(!(uidNumber=*))"), std::string::npos) << found;
    EXPECT_NE(asked("(gidNumber=" + id + ")", false, true).find("(primaryGroupID=1104)"), std::string::npos);
    EXPECT_EQ(asked("(uidNumber=5)", false, true), "(uidNumber=5)");
    EXPECT_NE(asked("(uidNumber=*)", false, true).find("(objectCategory=person)"), std::string::npos);
}

TEST(AdFilter, ComposedOnesCannotBeBrokenOutOf) {
    EXPECT_EQ(escapeFilterValue("a)(uid=*"), "a\\29\\28uid=\\2a");
    EXPECT_EQ(escapeFilterValue(std::string("\\\0 \xc3\xa4", 5)), "\\5c\\00\\20\\c3\\a4");
    EXPECT_EQ(anyOf("uid", {"x"}), "(uid=x)");
    EXPECT_EQ(anyOf("uid", {"x", "*"}), "(|(uid=x)(uid=\\2a))");
}

TEST(AdFilter, IsQuickWhereAnIndexLeadsToFew) {
    const auto isQuick = [](const std::string& filter) {
        const Pool pool = newPool();
        ParseTree* tree = nullptr;
        EXPECT_TRUE(parseFilter(pool.get(), filter, tree).ok()) << filter;
        return isQuickAdFilter(tree);
    };
    for (const char* name : {"sAMAccountName", "uidNumber", "cn", "name", "displayName", "userPrincipalName",
                             "mail", "objectSid", "objectGUID", "distinguishedName", "servicePrincipalName",
                             "proxyAddresses", "SAMACCOUNTNAME"})
        EXPECT_TRUE(isQuick(std::string("(") + name + "=x)")) << name;
    for (const char* name : {"uid", "memberUid", "gidNumber", "objectClass", "description", "n"})
        EXPECT_FALSE(isQuick(std::string("(") + name + "=x)")) << name;
    for (const char* filter :
         {"(&(objectClass=user)(cn=x))", "(|(cn=x)(mail=x))", "(|(&(uid=x)(cn=x))(cn=y))"})
        EXPECT_TRUE(isQuick(filter)) << filter;
    for (const char* filter :
         {"", "(|(cn=x)(uid=x))", "(!(cn=x))", "(cn>=x)", "(cn=*)", "(cn=x*)", "(&(uid=x)(cn=*))"})
        EXPECT_FALSE(isQuick(filter)) << filter;
}

TEST(AdFilter, TheCheapestPartsComeFirst) {
    EXPECT_EQ(asked("(&(!(description=x))(objectClass=user)(primaryGroupID=513)(cn=ann))"),
              "(&(cn=ann)(primaryGroupID=513)(objectClass=user)(!(description=x)))");
    EXPECT_EQ(asked("(&(description=x*)(uid=ann)(GIDNUMBER=5))"),
              "(&(GIDNUMBER=5)(uid=ann)(description=x*))");
    EXPECT_EQ(asked("(|(description=x*)(cn=ann))"), "(|(description=x*)(cn=ann))");
}

TEST(AdFilter, OneThatNamesClassesAlreadyGetsNoMore) {
    const auto isTyped = [](const std::string& filter) {
        return asked(filter, true).find("(objectClass=automount)") != std::string::npos;
    };
    for (const char* filter : {"(objectClass=user)", "(OBJECTCATEGORY=cn=x)", "(&(uid=x)(objectClass=user))",
                               "(|(objectClass=user)(objectClass=group))"})
        EXPECT_FALSE(isTyped(filter)) << filter;
    for (const char* filter : {"(uid=x)", "(!(objectClass=user))", "(objectClass=*)",
                               "(|(uid=x)(objectClass=user))", "(&(uid=x)(description=x))", "(objectClas=x)"})
        EXPECT_TRUE(isTyped(filter)) << filter;
    EXPECT_EQ(asked("(!(memberUid=ben))", true).find("(|(objectClass=user)"), 0u);
}

TEST(AdFilter, OnlyEqualityAsksForSomebodysGroups) {
    EXPECT_EQ(asked("(memberUid=a*)"), "(memberUid=a*)");
    EXPECT_EQ(asked("(memberUid>=a)"), "(memberUid>=a)");
    // What is decided is not looked at for ids any more.
    EXPECT_EQ(asked("(memberUid=ann)", false, true), asked("(memberUid=ann)"));
    EXPECT_EQ(asked("(memberUid=*)", false, true), asked("(memberUid=*)"));
    EXPECT_EQ(asked("(MEMBERUID=ann)"), "(|(objectGUID=AAAAAAAAAAAAAAAA)(objectGUID=BBBBBBBBBBBBBBBB))");
}

TEST(AdFilter, HoldersOfAMadeIdAreThoseWithoutANumberOfTheirOwn) {
    const std::string id = std::to_string(*idsOn().first() + 1104);
    const std::string person = "(objectCategory=person)";
    const auto folded = [](const std::string& text) { return vorn::lower(text); };
    const auto found = [&](const std::string& filter) { return folded(asked(filter, false, true)); };
    const std::string holder = "(&(objectsid=" + found("(objectSid=S-1-5-21-1-2-3-1104)").substr(11);
    EXPECT_EQ(found("(UIDNumber=" + id + ")"), "(|(uidnumber=" + id + ")" + holder + "(!(uidnumber=*))))");
    EXPECT_EQ(found("(gidNumber=" + id + ")"),
              "(|(gidnumber=" + id + ")" + holder + "(!(gidnumber=*)))" +
                  folded("(&(primaryGroupID=1104)" + person + "(!(gidNumber=*))))"));
}

TEST(AdFilter, WhoeverHasASidHasANumber) {
    EXPECT_EQ(asked("(uidNumber=*)", false, true), "(|(uidNumber=*)(objectCategory=person))");
    EXPECT_EQ(asked("(gidNumber=*)", false, true),
              "(|(gidNumber=*)(objectCategory=person)(objectCategory=group))");
    EXPECT_EQ(asked("(uidNumber>=5)", false, true), "(uidNumber>=5)");
    EXPECT_EQ(asked("(uid=*)", false, true), "(uid=*)");
    EXPECT_EQ(asked("(uidNumber=x)", false, true), "nothing");
}

TEST(AdFilter, NothingButPrintableAsciiStandsUnescaped) {
    EXPECT_EQ(escapeFilterValue("!~aZ09=,+\"#;<>"), "!~aZ09=,+\"#;<>");
    EXPECT_EQ(escapeFilterValue(" \x1f\x7f\x80\xff"), "\\20\\1f\\7f\\80\\ff");
    EXPECT_EQ(escapeFilterValue(""), "");
}

}  // namespace
}  // namespace vexagent
