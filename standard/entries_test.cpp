// SPDX-License-Identifier: Apache-2.0
#include "standard/entries.h"

#include "standard/directory_testing.h"

namespace standard {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class EntriesTest : public DirectoryTest {
  protected:
    // How many entries a search has tested.
    int testsOf(const std::string& filter) {
        m_tests = 0;
        find(filter);
        return m_tests;
    }
    void hasThePeople() { has({person("ann"), person("bob")}); }

    // The same, from the cache, with their entries made.
    void cache(const std::string& filter) {
        useCache();
        for (int i = 0; i < 3; ++i) find(filter);
        standin::forgetCalls();
    }
};

TEST_F(EntriesTest, AreThoseThatTheClientsOwnFilterIsTrueFor) {
    hasThePeople();
    EXPECT_THAT(find("(uid=ANN)"), ElementsAre("CN=ann", "0"));
    EXPECT_THAT(find("(objectClass=posixAccount)"), ElementsAre("CN=ann", "CN=bob", "0"));
}

TEST_F(EntriesTest, AreThoseInScope) {
    hasThePeople();
    Asked asked = ask();
    EXPECT_THAT(run(asked.where("(uid=*)").at("ou=g,DC=example,DC=com", LDAP_SCOPE_SUBTREE)),
                Not(testing::Contains("CN=ann")));
}

TEST_F(EntriesTest, OfAFilterThatNoKindCanMatchAskNobody) {
    has({domain()});
    EXPECT_THAT(find("(&(uid=ann)(memberUid=ann))"), ElementsAre("0"));
    EXPECT_THAT(questions(), testing::Each(Not(HasSubstr("uid"))));
}

TEST_F(EntriesTest, ComeFromTheCacheForWhateverMeansTheSame) {
    hasThePeople();
    useCache();
    find("(&(uid=ann)(objectClass=*))");
    standin::forgetCalls();
    EXPECT_THAT(find("(&(objectClass=*)(uid=ann)(uid=ann))"), ElementsAre("CN=ann", "0"));
    EXPECT_THAT(questions(), IsEmpty());
    find("(&(objectClass=*)(uid=bob))");
    EXPECT_THAT(questions(), Not(IsEmpty()));
}

TEST_F(EntriesTest, OfTheCacheAreMadeOnce) {
    hasThePeople();
    cache("(uid=*)");
    const int live = standin::liveEntries();
    find("(uid=*)");
    EXPECT_THAT(standin::calls(), Not(testing::Contains(HasSubstr("vexGetFirstAttribute"))));
    EXPECT_EQ(standin::liveEntries(), live);
}

TEST_F(EntriesTest, OfTheCacheAreTestedOnce) {
    hasThePeople();
    cache("(uid=a*)");
    EXPECT_EQ(testsOf("(uid=a*)"), 0);
    EXPECT_THAT(find("(uid=a*)"), ElementsAre("CN=ann", "0"));
    EXPECT_EQ(testsOf("(uid=b*)"), 2) << "of another search";
}

TEST_F(EntriesTest, AreTestedEachTimeWhereRulesAreAboutSomeOfThem) {
    hasThePeople();
    cache("(uid=a*)");
    AccessControl rule{};
    rule.acl_dn_style = ACL_STYLE_SUBTREE;
    m_frontend.be_acl = &rule;
    EXPECT_EQ(testsOf("(uid=a*)"), 2);
}

TEST_F(EntriesTest, AreTestedEachTimeForAClientThatMayNotSearchAll) {
    hasThePeople();
    cache("(uid=a*)");
    standin::hideFromSearch({"uid"});
    EXPECT_EQ(testsOf("(uid=a*)"), 2);
}

TEST_F(EntriesTest, AreTestedEachTimeForWhatIsMadeOfOthers) {
    has({person("ann"), group("staff", {"ann"})});
    for (const char* filter : {"(member=cn=ann,ou=p,dc=example,dc=com)",
                               "(memberOf=cn=staff,ou=g,dc=example,dc=com)", "(!(hasSubordinates=TRUE))"}) {
        cache(filter);
        EXPECT_GT(testsOf(filter), 0) << filter;
    }
}

TEST_F(EntriesTest, AreTestedAgainWhenTheirObjectIsAnotherOne) {
    hasThePeople();
    cache("(uid=a*)");
    std::shared_ptr<GuidList> list;
    SearchCacheManager::GetCacheManager()->getList("=(uid:*=a*)2dc=example,dc=com", list);
    ASSERT_NE(list, nullptr);
    for (std::size_t i = 0; i < list->size(); ++i) {
        EXPECT_GT(list->verdictAt(i)->load(), 1U);
        *list->verdictAt(i) += 2;  // on the next object that the cache took
    }
    EXPECT_EQ(testsOf("(uid=a*)"), 2);
    EXPECT_THAT(find("(uid=a*)"), ElementsAre("CN=ann", "0"));
}

TEST_F(EntriesTest, HaveMembersOnlyWhereSomebodyWantsThem) {
    has({group("staff", {"ann"}), person("ann")});
    Asked plain = ask();
    run(plain.where("(gidNumber=9)").wanting({"gidNumber"}));
    EXPECT_THAT(questions(), testing::SizeIs(1));
    Asked all = ask();
    run(all.where("(gidNumber=9)").wanting({"member"}));
    EXPECT_THAT(lastEntry(), HasSubstr("member: CN=ann,OU=P,DC=example,DC=com"));
}

TEST_F(EntriesTest, KeptWithoutMembersAreMadeAnewForThem) {
    has({group("staff", {"ann"}), person("ann")});
    useCache();
    for (const char* wanted : {"gidNumber", "gidNumber", "gidNumber", "member"}) {
        Asked asked = ask();
        run(asked.where("(gidNumber=9)").wanting({wanted}));
    }
    EXPECT_THAT(lastEntry(), HasSubstr("member: CN=ann,OU=P,DC=example,DC=com"));
}

TEST_F(EntriesTest, TellTheGroupsOfAPersonWhenAskedByName) {
    has({group("staff", {"ann"}), person("ann")});
    Asked all = ask();
    run(all.where("(uid=ann)").wanting({"*"}));
    EXPECT_THAT(lastEntry(), Not(HasSubstr("memberOf")));
    Asked named = ask();
    run(named.where("(uid=ann)").wanting({"memberOf"}));
    EXPECT_THAT(lastEntry(), HasSubstr("memberOf: cn=staff,OU=G,DC=example,DC=com"));
}

TEST_F(EntriesTest, AreFoundByTheirShownNames) {
    has({group("staff")});
    Asked asked = ask();
    vexCode code = VEX_OK;
    const std::string dn = "cn=staff,OU=G,DC=example,DC=com";
    asked.at(dn, LDAP_SCOPE_BASE);
    const SharedEntry entry = findEntry(asked.op(), asked.op()->o_req_dn, asked.op()->o_req_ndn, {}, &code);
    ASSERT_NE(entry, nullptr);
    EXPECT_STREQ(entry->e_name.bv_val, dn.c_str());
    EXPECT_EQ(code, VEX_OK);
}

TEST_F(EntriesTest, ThatCannotBeToldAreNotTakenForNone) {
    standin::answer("vexLdapSearchOpen", VEX_BROKEN_SESSION);
    Asked asked = ask();
    vexCode code = VEX_OK;
    EXPECT_EQ(findEntry(asked.op(), asked.op()->o_req_dn, asked.op()->o_req_ndn, {}, &code), nullptr);
    EXPECT_EQ(code, VEX_BROKEN_SESSION);
}

class MatchedTest : public DirectoryTest {
  protected:
    std::string matchedOf(const std::string& dn) {
        Asked asked = ask();
        asked.at(dn, LDAP_SCOPE_BASE);
        const SharedEntry entry = findMatched(asked.op(), asked.op()->o_req_dn, asked.op()->o_req_ndn);
        return entry == nullptr ? "" : entry->e_name.bv_val;
    }
};

TEST_F(MatchedTest, IsTheNearestEntryThatExists) {
    has({domain(), unit("P")});
    EXPECT_EQ(matchedOf("cn=x,cn=y,ou=p,dc=example,dc=com"), "OU=P,DC=example,DC=com");
    EXPECT_EQ(matchedOf("cn=x,ou=q,dc=example,dc=com"), "DC=example,DC=com");
    EXPECT_EQ(matchedOf("dc=example,dc=com"), "") << "nothing is above the suffix";
}

TEST_F(MatchedTest, IsNotToldWhereTheClientMayNotKnow) {
    has({domain()});
    standin::hideFromSearch({"entry"});
    EXPECT_EQ(matchedOf("cn=x,dc=example,dc=com"), "");
}

TEST_F(MatchedTest, IsNotToldWhereTheAgentFails) {
    standin::answerAlways("vexLdapSearchOpen", VEX_BROKEN_SESSION);
    EXPECT_EQ(matchedOf("cn=x,ou=p,dc=example,dc=com"), "");
}

}  // namespace
}  // namespace standard
