// SPDX-License-Identifier: Apache-2.0
// What a domain is asked for, for what a client asks for.

#include "agent/ad/plan.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/ad/forest_testing.h"

namespace vexagent {
namespace {

using test::kPeople;
using test::kRoot;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Not;

class PlanTest : public ::testing::Test {
  protected:
    PlanTest() { m_forest.addDomain("far.example.com", "FAR"); }

    Expected<AdPlan, Result> plan(const Query& query) { return plan(query, m_forest.place); }
    Expected<AdPlan, Result> plan(const Query& query, const Place& place) {
        return m_planner.search(query, place, m_forest.soon());
    }
    static Query below(const std::string& base, int scope = LDAP_SCOPE_SUBTREE) {
        Query query;
        query.base = base;
        query.scope = scope;
        return query;
    }
    static Query matching(const std::string& filter) {
        Query query;
        query.filter = filter;
        return query;
    }
    // The base and the scope that are asked for, or the failure.
    std::string baseFor(const Query& query, const Place& place) {
        const auto made = plan(query, place);
        if (!made) return std::to_string(made.error().code) + " " + std::to_string(made.error().errCode);
        return made->search.base + " " + std::to_string(made->search.scope);
    }
    std::string baseFor(const Query& query) { return baseFor(query, m_forest.place); }

    test::ExampleForest m_forest;
    const Place m_catalog{"example.com", Place::Kind::Catalog};
    Domains m_domains{m_forest.network, m_forest.options};
    AdMemberships m_memberships{m_forest.network, 100};
    Planner m_planner{m_forest.network, m_forest.options, m_domains, m_memberships};
};

const char* const kNoSuchBase = "9 32";

TEST_F(PlanTest, TheBaseIsTheRootOrWhatIsNamed) {
    EXPECT_EQ(baseFor(below("")), std::string(kRoot) + " 2");
    EXPECT_EQ(baseFor(below(kPeople, LDAP_SCOPE_ONELEVEL)), std::string(kPeople) + " 1");
    EXPECT_EQ(baseFor(below("ou=elsewhere,dc=test", LDAP_SCOPE_BASE)), "ou=elsewhere,dc=test 0");
    EXPECT_EQ(baseFor(below(""), {"far.example.com"}), "DC=far,DC=example,DC=com 2");
}

TEST_F(PlanTest, TheCatalogHasNoRootOfItsOwn) {
    EXPECT_EQ(baseFor(below(""), m_catalog), " 2");
    EXPECT_EQ(baseFor(below(kPeople), m_catalog), std::string(kPeople) + " 2");
}

TEST_F(PlanTest, AGuidIsABase) {
    const std::string guid = "01020304-0506-0708-090a-0b0c0d0e0f10";
    EXPECT_EQ(baseFor(below("<guid={" + guid + "}>", LDAP_SCOPE_BASE)), "<GUID=" + guid + "> 0");
    for (const std::string base : {"<GUID=nonsense>", "<GUID=>", "<GUID=01020304>"})
        EXPECT_EQ(baseFor(below(base)), kNoSuchBase) << base;
    EXPECT_EQ(baseFor(below("<GUID=" + guid)), kNoSuchBase);
    EXPECT_EQ(baseFor(below("<GUID=" + guid + "x")), kNoSuchBase);
    EXPECT_EQ(baseFor(below("OU=x\\>")), "OU=x\\> 2");
}

TEST_F(PlanTest, WhatIsNoDnIsNoBase) {
    EXPECT_EQ(baseFor(below("people")), kNoSuchBase);
    EXPECT_EQ(baseFor(below(kPeople + std::string("\0", 1))), kNoSuchBase);
}

TEST_F(PlanTest, WhatIsBelowABaseIsAllButTheBaseItself) {
    m_forest.network.takeExchanges();
    const auto made = plan(below("ou=PEOPLE,dc=example,dc=com", 3));
    ASSERT_TRUE(made.has_value());
    EXPECT_EQ(made->search.scope, LDAP_SCOPE_SUBTREE);
    EXPECT_EQ(made->without, kPeople);  // as the controller writes it
    EXPECT_EQ(baseFor(below("OU=Gone,DC=example,DC=com", 3)), kNoSuchBase);
    EXPECT_EQ(plan(below(kPeople))->without, "");
}

TEST_F(PlanTest, ABaseThatCannotBeReadIsAFailure) {
    ASSERT_TRUE(plan(below("")).has_value());
    m_forest.domain.answers = false;
    EXPECT_EQ(baseFor(below(kPeople, 3)), "12 -1");
    EXPECT_EQ(baseFor(below(kPeople)), std::string(kPeople) + " 2");  // nobody is asked for it
}

TEST_F(PlanTest, TheFilterIsMadeOfWhatTheDomainKnows) {
    const auto made = plan(matching("(&(1.2.3=ann)(objectCategory=user)(shoeSize=44))"));
    ASSERT_TRUE(made.has_value());
    EXPECT_TRUE(made->nothing);  // a secret is asserted
    EXPECT_EQ(plan(matching("(&(1.2.3=ann)(objectCategory=user))"))->search.filter,
              "(&(uid=ann)(objectCategory=CN=Person,CN=Schema,CN=Configuration,DC=example,DC=com))");
    EXPECT_FALSE(plan(matching("(uid=ann)"))->nothing);
    const auto bad = plan(matching("(uid="));
    ASSERT_FALSE(bad.has_value());
    EXPECT_EQ(bad.error().code, VEX_BAD_FILTER);
}

TEST_F(PlanTest, ADnIsAskedForAsItIsStored) {
    EXPECT_EQ(plan(matching("(_dn=cn=ann, OU=People,dc=example,dc=com)"))->search.filter,
              "(distinguishedName=cn=ann,OU=People,dc=example,dc=com)");
    EXPECT_TRUE(plan(matching("(_dn=nonsense)"))->nothing);
}

TEST_F(PlanTest, MuchIsExpectedOfAFilterThatNoIndexAnswers) {
    EXPECT_EQ(plan(matching("(cn=ann)"))->search.extent, Extent::Any);
    EXPECT_EQ(plan(matching("(description=x)"))->search.extent, Extent::Many);
    EXPECT_EQ(plan(matching(""))->search.extent, Extent::Many);
}

TEST_F(PlanTest, InTheZonesViewGroupsArePeoples) {
    const std::string ann = m_forest.addPerson("ann"), group = m_forest.addGroup("staff");
    m_forest.join(group, ann);
    Query query = matching("(memberUid=ann)");
    EXPECT_EQ(plan(query)->search.filter, "(memberUid=ann)");
    query.view.zone = true;
    const auto made = plan(query);
    ASSERT_TRUE(made.has_value());
    EXPECT_EQ(made->search.filter.find("(|(objectGUID="), 0u) << made->search.filter;
    EXPECT_EQ(made->search.extent, Extent::Any);
    query.filter = "(memberUid=nobody)";
    EXPECT_TRUE(plan(query)->nothing);
}

TEST_F(PlanTest, AFilterAsksForTheGroupsOfSixtyFourPeople) {
    const auto asking = [](int people) {
        Query query;
        query.view.zone = true;
        for (int i = 0; i < people; ++i) query.filter += "(memberUid=p" + std::to_string(i) + ")";
        query.filter = "(|" + query.filter + ")";
        return query;
    };
    EXPECT_TRUE(plan(asking(64)).has_value());
    const auto refused = plan(asking(65));
    ASSERT_FALSE(refused.has_value());
    EXPECT_EQ(refused.error().errCode, LDAP_ADMINLIMIT_EXCEEDED);
}

TEST_F(PlanTest, GroupsThatCannotBeReadAreAFailure) {
    ASSERT_TRUE(plan(below("")).has_value());
    m_forest.domain.answers = false;
    Query query = matching("(memberUid=ann)");
    query.view.zone = true;
    const auto made = plan(query);
    ASSERT_FALSE(made.has_value());
    EXPECT_EQ(made.error().code, VEX_UNAVAILABLE);
}

TEST_F(PlanTest, MadeIdsAreLookedForWhereTheyAreMade) {
    const Ids ids({.fromSid = true}, m_forest.domain.info.sid);
    const std::string id = std::to_string(*ids.first() + 1104);
    EXPECT_EQ(plan(matching("(uidNumber=" + id + ")"))->search.filter, "(uidNumber=" + id + ")");
    EXPECT_FALSE(plan(matching(""))->ids->enabled());
    m_forest.options.ids.fromSid = true;
    const auto made = plan(matching("(uidNumber=" + id + ")"));
    ASSERT_TRUE(made.has_value());
    EXPECT_TRUE(made->ids->enabled());
    EXPECT_EQ(made->search.filter.find("(|(uidNumber=" + id + ")(&(objectSid="), 0u) << made->search.filter;
}

TEST_F(PlanTest, MadeIdsAndPeoplesGroupsGoTogether) {
    const std::string ann = m_forest.addPerson("ann"), group = m_forest.addGroup("staff");
    m_forest.join(group, ann);
    Query query = matching("(|(memberUid=ann)(uidNumber=*))");
    query.view.zone = true;
    EXPECT_EQ(plan(query)->search.filter.find("(objectCategory=person)"), std::string::npos);
    m_forest.options.ids.fromSid = true;
    const std::string filter = plan(query)->search.filter;
    EXPECT_NE(filter.find("(|(uidNumber=*)(objectCategory=person))"), std::string::npos) << filter;
    EXPECT_NE(filter.find("(objectGUID="), std::string::npos) << filter;
}

TEST_F(PlanTest, WithMadeIdsTheDomainMustSayWhatItIs) {
    m_forest.options.ids.fromSid = true;
    m_forest.domain.answers = false;
    const auto made = m_planner.one({}, m_forest.place, m_forest.soon());
    ASSERT_FALSE(made.has_value());
    EXPECT_EQ(m_forest.network.exchanges.size(), 1u);
}

TEST_F(PlanTest, WithoutASchemaThereIsNoPlan) {
    m_forest.domain.answers = false;
    EXPECT_EQ(plan(below("")).error().code, VEX_UNAVAILABLE);
    EXPECT_EQ(m_planner.one({}, m_forest.place, m_forest.soon()).error().code, VEX_UNAVAILABLE);
}

TEST_F(PlanTest, MembersOfTheCatalogsGroupsAreInTheJoinedDomain) {
    EXPECT_EQ(plan(below(""), m_catalog)->members.name, "example.com");
    EXPECT_EQ(plan(below(""), m_catalog)->members.kind, Place::Kind::Domain);
    EXPECT_EQ(plan(below(""), m_catalog)->place.kind, Place::Kind::Catalog);
    EXPECT_EQ(plan(below(""), {"far.example.com"})->members.name, "far.example.com");
}

TEST_F(PlanTest, TheRestIsTakenOverFromTheQuery) {
    Query query;
    query.typed = true;
    query.firstBatch = 7;
    query.view = {true, {"1.2.3", "unixHomeDirectory", "shoeSize"}};
    const auto made = plan(query);
    ASSERT_TRUE(made.has_value());
    EXPECT_TRUE(made->typed);
    EXPECT_EQ(made->firstBatch, 7u);
    EXPECT_TRUE(made->view.zone);
    EXPECT_THAT(made->view.attributes, ElementsAre("uid", "unixHomeDirectory"));
    EXPECT_THAT(made->search.attributes, Contains("uid"));
    EXPECT_THAT(made->search.attributes, Not(Contains("shoeSize")));
    EXPECT_NE(made->search.filter.find("(objectClass=user)"), std::string::npos);
}

TEST_F(PlanTest, OneObjectIsAskedForByItsView) {
    const auto made = m_planner.one({false, {"cn"}}, m_forest.place, m_forest.soon());
    ASSERT_TRUE(made.has_value());
    EXPECT_THAT(made->search.attributes, Contains("cn"));
    EXPECT_EQ(made->place.name, "example.com");
    EXPECT_FALSE(made->typed || made->nothing);
}

TEST(LeadsToFew, WhatIsIndexedOrNoFilterAtAll) {
    EXPECT_TRUE(leadsToFew("(cn=ann)"));
    EXPECT_TRUE(leadsToFew("(cn="));
    EXPECT_FALSE(leadsToFew("(uid=ann)"));
    EXPECT_FALSE(leadsToFew(""));
}

}  // namespace
}  // namespace vexagent
