// SPDX-License-Identifier: Apache-2.0
#include "standard/names.h"

#include "standard/directory_testing.h"

namespace standard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class NamesTest : public DirectoryTest {
  protected:
    static std::string placed(const std::string& base, int scope, const Kinds& kinds = usedKinds()) {
        const AgentQuestion question = placedQuestion("(f=1)", base, scope, kinds);
        return question.filter + " " + question.base + " " + std::to_string(question.scope);
    }
    std::string real(const std::string& shown) { return realDn(shown, usedKinds(), &m_code); }

    static standin::Object named(const std::string& dn) {
        standin::Object object = person("ann");
        object[0].values = {dn};
        return object;
    }

    vexCode m_code = VEX_OK;
};

TEST_F(NamesTest, ThatMayBeGivenAreLookedForBelowTheirParent) {
    EXPECT_EQ(placed("cn=a(b,OU=P,DC=x", LDAP_SCOPE_BASE),
              "(&(f=1)(|(cn=a\\28b)(sAMAccountName=a\\28b))) OU=P,DC=x 1");
}

TEST_F(NamesTest, ThatAreTheDirectorysOwnAreAskedForAsTheyStand) {
    EXPECT_EQ(placed("cn=a,OU=P,DC=x", LDAP_SCOPE_SUBTREE), "(f=1) cn=a,OU=P,DC=x 2");
    EXPECT_EQ(placed("OU=P,DC=x", LDAP_SCOPE_BASE), "(f=1) OU=P,DC=x 0");
    EXPECT_EQ(placed("cn=a+uid=b,OU=P,DC=x", LDAP_SCOPE_BASE), "(f=1) cn=a+uid=b,OU=P,DC=x 0");
    EXPECT_EQ(placed("cn=a", LDAP_SCOPE_BASE), "(f=1) cn=a 0");
    Kinds kinds = usedKinds();
    for (Kind& kind : kinds) kind.naming.clear();
    EXPECT_EQ(placed("cn=a,OU=P,DC=x", LDAP_SCOPE_BASE, kinds), "(f=1) cn=a,OU=P,DC=x 0");
}

TEST_F(NamesTest, OfGroupsAreGivenAndThoseOfPeopleAreNot) {
    EXPECT_TRUE(someAreRenamed(usedKinds()));
    EXPECT_FALSE(someAreRenamed({usedKinds().front()}));
}

TEST_F(NamesTest, WithOneSpellingAskNobody) {
    EXPECT_EQ(real("OU=P,DC=example,DC=com"), "");
    EXPECT_THAT(questions(), IsEmpty());
}

TEST_F(NamesTest, ThatAreGivenAreFoundByTheirChild) {
    hasAt("OU=G,DC=example,DC=com", {group("other"), group("staff")});
    EXPECT_EQ(real("cn=Staff,OU=G,DC=example,DC=com"), "CN=The staff,OU=G,DC=example,DC=com");
    EXPECT_EQ(m_code, VEX_OK);
    EXPECT_THAT(questions(), ElementsAre("(|(cn=staff)(sAMAccountName=staff)) OU=G,DC=example,DC=com 1"));
    EXPECT_EQ(real("cn=The staff,OU=G,DC=example,DC=com"), "") << "it is shown by another name";
}

TEST_F(NamesTest, WithBlanksAreFoundInWhateverWayTheyAreWritten) {
    hasAt("OU=P,DC=example,DC=com", {named("CN=Ann Lee,OU=P,DC=example,DC=com")});
    EXPECT_EQ(real("cn=ann   LEE,OU=P,DC=example,DC=com"), "CN=Ann Lee,OU=P,DC=example,DC=com");
    EXPECT_THAT(questions(), ElementsAre("(|(cn=ann*lee)(sAMAccountName=ann*lee)) OU=P,DC=example,DC=com 1"));
}

TEST_F(NamesTest, BelowAContainerWithBlanksAreFoundLevelByLevel) {
    standin::Object place = unit("Our People");
    hasAt("DC=example,DC=com", {place});
    hasAt("OU=Our People,DC=example,DC=com", {named("CN=Ann Lee,OU=Our People,DC=example,DC=com")});
    EXPECT_EQ(real("cn=ann lee,ou=our  people,DC=example,DC=com"),
              "CN=Ann Lee,OU=Our People,DC=example,DC=com");
    EXPECT_EQ(real("cn=ann lee,ou=their people,DC=example,DC=com"), "");
}

TEST_F(NamesTest, OfSeveralValuesAreNotLookedFor) {
    EXPECT_EQ(real("cn=a b+uid=c,OU=P,DC=example,DC=com"), "");
    EXPECT_THAT(questions(), IsEmpty());
}

TEST_F(NamesTest, ThatCannotBeToldAreNotTakenForNone) {
    standin::answer("vexLdapSearchOpen", VEX_BROKEN_SESSION);
    EXPECT_EQ(real("cn=staff,OU=G,DC=example,DC=com"), "");
    EXPECT_EQ(m_code, VEX_BROKEN_SESSION);
    has({group("staff")}, VEX_BROKEN_SESSION);
    EXPECT_EQ(real("cn=staff,OU=G,DC=example,DC=com"), "");
    EXPECT_EQ(m_code, VEX_BROKEN_SESSION);
}

TEST_F(NamesTest, OfManyLevelsAreGivenUp) {
    std::string dn = "cn=a b";
    for (int i = 0; i < 100; ++i) dn += ",ou=c d";
    EXPECT_EQ(real(dn + ",DC=example,DC=com"), "");
    EXPECT_THAT(questions(), IsEmpty());
}

}  // namespace
}  // namespace standard
