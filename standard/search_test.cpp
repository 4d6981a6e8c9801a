// SPDX-License-Identifier: Apache-2.0
// What a search in the standard mode comes to.
#include "standard/directory_testing.h"

namespace standard {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class StandardSearch : public DirectoryTest {
  protected:
    std::vector<std::string> findAt(const std::string& base, int scope, const std::string& filter) {
        Asked asked = ask();
        return run(asked.at(base, scope).where(filter));
    }
    std::string lastText() { return m_connection.sent().back().text; }
    std::string lastCookie() { return searchtest::cookieOf(m_connection.sent().back()); }
};

TEST_F(StandardSearch, ThatFindsNothingInABaseThatExistsIsASuccess) {
    has({domain()});
    EXPECT_THAT(find("(uid=ann)"), ElementsAre("0"));
}

TEST_F(StandardSearch, OfABaseThatDoesNotExistSaysSo) {
    has({domain(), person("ann")});
    EXPECT_THAT(findAt("ou=q,DC=example,DC=com", LDAP_SCOPE_SUBTREE, "(uid=*)"), ElementsAre("32"));
}

TEST_F(StandardSearch, OfItsBaseFindsItByTheShownName) {
    hasAt("OU=G,DC=example,DC=com", {group("staff")});
    EXPECT_THAT(findAt("cn=staff,OU=G,DC=example,DC=com", LDAP_SCOPE_BASE, "(gidNumber=9)"),
                ElementsAre("cn=staff", "0"));
    EXPECT_THAT(findAt("cn=staff,OU=G,DC=example,DC=com", LDAP_SCOPE_BASE, "(gidNumber=8)"),
                ElementsAre("0"));
}

TEST_F(StandardSearch, OfABaseThatIsWrittenOtherwiseFindsItsEntry) {
    standin::Object ann = person("ann");
    ann[0].values = {"CN=Ann Lee,OU=P,DC=example,DC=com"};
    standin::Match likeIt;
    likeIt.filter = "(|(cn=ann*lee)(sAMAccountName=ann*lee))";
    standin::Found found;
    found.objects = {ann};
    standin::searchFor(likeIt, found);
    hasAt("CN=Ann Lee,OU=P,DC=example,DC=com", {ann});
    EXPECT_THAT(findAt("cn=ann  lee,OU=P,DC=example,DC=com", LDAP_SCOPE_BASE, "(uid=ann)"),
                ElementsAre("CN=Ann Lee", "0"));
}

TEST_F(StandardSearch, OfTooManyPartsIsRefused) {
    std::string filter = "(|";
    for (int i = 0; i < 5000; ++i) filter += "(uid=u" + std::to_string(i) + ")";
    EXPECT_THAT(find(filter + ")"), ElementsAre("53"));
    EXPECT_EQ(lastText(), "the search filter has too many parts");
}

TEST_F(StandardSearch, ThatTheAgentFailsIsToldOnce) {
    standin::answer("vexLdapSearchOpen", VEX_BROKEN_SESSION);
    EXPECT_THAT(find("(uid=ann)"), ElementsAre("52"));
    has({person("ann")}, VEX_BROKEN_SESSION);
    EXPECT_THAT(find("(uid=*)"), ElementsAre("CN=ann", "52"));
}

TEST_F(StandardSearch, EndsAtItsSizeLimit) {
    has({person("ann"), person("bob"), person("cyd")});
    Asked asked = ask();
    asked.where("(uid=*)").op()->ors_slimit = 2;
    EXPECT_THAT(run(asked), ElementsAre("CN=ann", "CN=bob", "4"));
    Asked enough = ask();
    enough.where("(uid=*)").op()->ors_slimit = 3;
    EXPECT_THAT(run(enough), ElementsAre("CN=ann", "CN=bob", "CN=cyd", "0"));
}

TEST_F(StandardSearch, GoesOnWithItsOwnPages) {
    has({person("ann"), person("bob"), person("cyd")});
    Asked first = ask();
    EXPECT_THAT(run(first.where("(&(uid=*)(cn=*))").page(2)), ElementsAre("CN=ann", "CN=bob", "0"));
    Asked second = ask();
    EXPECT_THAT(run(second.where("(&(cn=*)(uid=*))").page(2, lastCookie())), ElementsAre("CN=cyd", "0"));
    EXPECT_EQ(lastCookie(), "");
}

TEST_F(StandardSearch, GoesNotOnWithThePagesOfAnother) {
    has({person("ann"), person("bob"), person("cyd")});
    Asked first = ask();
    run(first.where("(uid=*)").page(2));
    Asked second = ask();
    EXPECT_THAT(run(second.where("(cn=*)").page(2, lastCookie())), ElementsAre("53"));
    EXPECT_EQ(lastText(), "paged results cookie is of another search");
}

TEST_F(StandardSearch, IsMadeOnlyWhereTheClientsAssertionHolds) {
    has({domain(), person("ann")});
    for (const auto& [assertion, expected] :
         {std::pair("(objectClass=domain)", "CN=ann"), std::pair("(objectClass=person)", "122")}) {
        FilterBuilder builder;
        Asked asked = ask();
        asked.where("(uid=*)");
        asked.op()->o_assert = SLAP_CONTROL_CRITICAL;
        asked.op()->o_assertion = Asked::described(builder.parse(assertion));
        EXPECT_EQ(run(asked).front(), expected) << assertion;
    }
}

TEST_F(StandardSearch, SendsOfEachEntryWhatIsAskedFor) {
    has({person("ann"), person("bob")});
    Asked asked = ask();
    run(asked.where("(uid=*)").wanting({"uid"}));
    EXPECT_EQ(lastEntry(), "dn: CN=bob,OU=P,DC=example,DC=com\nuid: bob\n");
}

TEST_F(StandardSearch, AskedForMembersOfASupertypeHasThem) {
    has({group("staff", {"ann"}), person("ann")});
    Asked asked = ask();
    run(asked.where("(gidNumber=9)"));
    EXPECT_THAT(lastEntry(), HasSubstr("member: CN=ann"));
}

}  // namespace
}  // namespace standard
