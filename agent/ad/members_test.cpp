// SPDX-License-Identifier: Apache-2.0
// Who is in which group.

#include "agent/ad/members.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "agent/ad/forest_testing.h"
#include "agent/directory/member_naming.h"

namespace vexagent {
namespace {

using test::kGroups;
using test::kPeople;
using test::kRoot;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kNoGroup[] = "999";  // nobody's primary one

class MembersTest : public ::testing::Test {
  protected:
    MembersTest() {
        // What everybody's primary group would be is none here.
        m_ann = addPerson("ann");
        m_ben = addPerson("ben");
        m_staff = m_forest.addGroup("staff");
    }
    std::string addPerson(const std::string& name, std::vector<Attribute> more = {}) {
        more.push_back({"primaryGroupID", {kNoGroup}});
        return m_forest.addPerson(name, std::move(more));
    }
    std::string addGroup(const std::string& name, const std::vector<std::string>& members) {
        std::string dn = m_forest.addGroup(name);
        for (const std::string& member : members) m_forest.join(dn, member);
        return dn;
    }
    // The entry as a search gives it.
    Entry entry(const std::string& dn) {
        auto found = readOne(m_forest.network, m_forest.place, {dn, LDAP_SCOPE_BASE}, m_forest.soon());
        EXPECT_TRUE(found && found->size() == 1) << dn;
        return found && found->size() == 1 ? found->front() : Entry();
    }
    Expected<AdMemberships::MemberUids, LdapFailure> membersOf(const std::vector<std::string>& dns) {
        std::vector<Entry> entries;
        for (const std::string& dn : dns) entries.push_back(entry(dn));
        std::vector<const Entry*> groups;
        for (const Entry& group : entries) groups.push_back(&group);
        m_forest.network.takeExchanges();
        return m_memberships.memberUids({m_forest.place, *m_ids, m_naming, m_forest.soon()}, groups);
    }
    std::vector<std::string> members(const std::string& group) {
        auto found = membersOf({group});
        EXPECT_TRUE(found.has_value());
        return found && found->size() == 1 ? found->front() : std::vector<std::string>{"failure"};
    }
    // The DNs of the groups that show this name, sorted.
    std::vector<std::string> groups(const std::string& name) {
        auto guids = m_memberships.groupsOf({m_forest.place, *m_ids, m_naming, m_forest.soon()}, name);
        EXPECT_TRUE(guids.has_value());
        std::vector<std::string> dns;
        if (guids)
            for (const std::string& guid : *guids) {
                auto found = readOne(m_forest.network, m_forest.place,
                                     {"<GUID=" + guidText(guid) + ">", LDAP_SCOPE_BASE}, m_forest.soon());
                dns.push_back(found && !found->empty() ? found->front().dn : "nothing");
            }
        std::sort(dns.begin(), dns.end());
        return dns;
    }
    // How many searches each exchange since was.
    std::vector<std::size_t> cost() {
        std::vector<std::size_t> searches;
        for (const Exchange& exchange : m_forest.network.takeExchanges())
            if (exchange.kind == Exchange::Kind::Search) searches.push_back(exchange.searches.size());
        return searches;
    }
    void pass(milliseconds time) { m_forest.network.time.advance(time); }

    test::ExampleForest m_forest;
    Naming m_naming = Naming::Hosts;
    std::unique_ptr<Ids> m_ids = std::make_unique<Ids>(IdOptions(), "");
    std::string m_ann, m_ben, m_staff;
    AdMemberships m_memberships{m_forest.network, 100};
};

// ------------------------------------------------------------------- downwards

TEST_F(MembersTest, OfAGroupAreItsOwnAndThoseOfItsGroupsSortedEachOnce) {
    const std::string inner = addGroup("inner", {m_ben, m_ann});
    const std::string outer = addGroup("outer", {inner, m_ann});
    m_forest.change(outer, "memberUid", "zoe");
    m_forest.change(inner, "memberUid", "ann");
    EXPECT_THAT(members(outer), ElementsAre("ann", "ben", "zoe"));
    EXPECT_THAT(members(inner), ElementsAre("ann", "ben"));
    EXPECT_THAT(members(m_staff), IsEmpty());
}

TEST_F(MembersTest, OnlyWhatNamesAreMadeOfIsAskedFor) {
    ASSERT_TRUE(membersOf({addGroup("g", {m_ann})}).has_value());
    std::vector<Exchange> asked = m_forest.network.takeExchanges();
    std::erase_if(asked, [](const Exchange& exchange) { return exchange.kind != Exchange::Kind::Search; });
    ASSERT_EQ(asked.size(), 2u);
    EXPECT_THAT(asked[0].searches[0].attributes,
                ElementsAre("objectClass", "objectCategory", "uid", "sAMAccountName", "uidNumber",
                            "objectSid", "primaryGroupID", "member", "memberUid"));
    EXPECT_EQ(asked[0].searches[0].extent, Extent::Few);
    EXPECT_THAT(asked[1].searches[0].attributes,
                ElementsAre("objectClass", "objectCategory", "uid", "sAMAccountName", "uidNumber",
                            "objectSid", "primaryGroupID"));
    EXPECT_EQ(asked[1].searches[0].extent, Extent::Many);  // it may be everybody
}

TEST_F(MembersTest, OfSeveralGroupsAreReadTogether) {
    const std::string one = addGroup("one", {m_ann}), two = addGroup("two", {m_ben, one});
    const auto found = membersOf({two, m_staff, one});
    ASSERT_TRUE(found.has_value());
    EXPECT_THAT(*found, ElementsAre(ElementsAre("ann", "ben"), IsEmpty(), ElementsAre("ann")));
    EXPECT_THAT(cost(), ElementsAre(1u, 1u));  // the people; those of the primary groups
}

TEST_F(MembersTest, WhoIsInAGroupAndInOneOfItsGroupsIsReadOnce) {
    const std::string inner = addGroup("inner", {m_ann}), outer = addGroup("outer", {inner, m_ann});
    EXPECT_THAT(members(outer), ElementsAre("ann"));
    EXPECT_THAT(cost(), ElementsAre(1u, 1u));  // both of them; the primary groups
}

TEST_F(MembersTest, GroupsThatContainEachOtherAreVisitedOnce) {
    const std::string one = addGroup("one", {m_ann}), two = addGroup("two", {m_ben, one});
    m_forest.join(one, two);
    m_forest.join(one, one);
    EXPECT_THAT(members(one), ElementsAre("ann", "ben"));
    EXPECT_THAT(members(two), ElementsAre("ann", "ben"));
}

TEST_F(MembersTest, AtAnyDepthAreRead) {
    std::string inner = addGroup("level0", {m_ann});
    for (int level = 1; level <= 12; ++level) inner = addGroup("level" + std::to_string(level), {inner});
    EXPECT_THAT(members(inner), ElementsAre("ann"));
}

TEST_F(MembersTest, OnlyPeopleWithANumberCount) {
    const std::string bare = addPerson("bare", {{"uidNumber", {}}});
    m_forest.domain.add("CN=box," + std::string(kPeople),
                        {{"objectClass", {"computer"}}, {"uidNumber", {"7"}}, {"sAMAccountName", {"box"}}});
    const std::string group = addGroup("mixed", {m_ann, bare});
    m_forest.change(group, "member", "CN=box," + std::string(kPeople));
    m_forest.change(group, "member", "CN=gone," + std::string(kPeople));
    m_forest.change(group, "member", "CN=S-1-5-11,CN=ForeignSecurityPrincipals,DC=other,DC=test");
    EXPECT_THAT(members(group), ElementsAre("ann"));
}

TEST_F(MembersTest, APersonIsCalledByUidOrElseByTheAccountsName) {
    const std::string cleo = addPerson("cleo", {{"uid", {"cl"}}});
    EXPECT_THAT(members(addGroup("g", {cleo, m_ann})), ElementsAre("ann", "cl"));
}

TEST_F(MembersTest, OfOtherDomainsAreNotLookedFor) {
    m_forest.change(m_staff, "member", "CN=far,DC=far,DC=test");
    m_forest.change(m_staff, "member", std::string("CN=x") + kRoot);  // not below the root
    EXPECT_THAT(members(m_staff), IsEmpty());
    EXPECT_THAT(cost(), ElementsAre(1u));  // the primary groups
}

TEST_F(MembersTest, WhosePrimaryGroupItIsAreAmongThem) {
    const std::string everybody = m_forest.addGroup("everybody", {{"objectSid", {m_forest.sid(513)}}});
    const std::string around = addGroup("around", {everybody});
    m_forest.addPerson("dora");
    m_forest.addPerson("eve", {{"uidNumber", {}}});
    m_forest.addPerson("far", {{"primaryGroupID", {"51"}}});
    EXPECT_THAT(members(everybody), ElementsAre("dora"));
    EXPECT_THAT(members(around), ElementsAre("dora"));
}

TEST_F(MembersTest, APrimaryGroupIsOneOfThisDomain) {
    const std::string alien =
        m_forest.addGroup("alien", {{"objectSid", {sidBytes("S-1-5-21-9-9-9-513").value()}}});
    const std::string builtin =
        m_forest.addGroup("builtin", {{"objectSid", {sidBytes("S-1-5-32-513").value()}}});
    const std::string none = m_forest.addGroup("none", {{"objectSid", {}}});
    m_forest.addPerson("dora");
    for (const std::string& group : {alien, builtin, none}) {
        EXPECT_THAT(members(group), IsEmpty()) << group;
        EXPECT_THAT(cost(), IsEmpty()) << group;
    }
}

TEST_F(MembersTest, ADomainWithoutASidHasNoPrimaryGroups) {
    m_forest.domain.info.sid = "";
    m_forest.addPerson("dora");
    EXPECT_THAT(members(m_forest.addGroup("g", {{"objectSid", {sidBytes("S-1-5-21-1-2-11-513").value()}}})),
                IsEmpty());
}

TEST_F(MembersTest, MadeIdsMakePeopleCount) {
    IdOptions options;
    options.fromSid = true;
    const std::string bare = addPerson("bare", {{"uidNumber", {}}});
    const std::string group = addGroup("g", {bare});
    EXPECT_THAT(members(group), IsEmpty());
    pass(milliseconds(10'001));
    m_ids = std::make_unique<Ids>(options, m_forest.domain.info.sid);
    EXPECT_THAT(members(group), ElementsAre("bare"));
}

TEST_F(MembersTest, PeoplesNamesAreNotAskedForAgainForAMinute) {
    const std::string group = addGroup("g", {m_ann, m_ben});
    members(group);
    EXPECT_THAT(cost(), ElementsAre(1u, 1u));
    members(group);
    EXPECT_THAT(cost(), ElementsAre(1u));  // the primary groups
    const std::string cleo = addPerson("cleo");
    m_forest.join(group, cleo);
    EXPECT_THAT(members(group), ElementsAre("ann", "ben", "cleo"));
    EXPECT_THAT(cost(), ElementsAre(1u, 1u));
    pass(milliseconds(60'001));
    members(group);
    EXPECT_THAT(cost(), ElementsAre(1u, 1u));
}

TEST_F(MembersTest, WhoElseIsInAGroupIsNeverRemembered) {
    const std::string inner = addGroup("inner", {m_ann}), outer = addGroup("outer", {inner});
    EXPECT_THAT(members(outer), ElementsAre("ann"));
    m_forest.join(inner, m_ben);
    EXPECT_THAT(members(outer), ElementsAre("ann", "ben"));
}

TEST_F(MembersTest, TheWholeDomainsPrimaryGroupIsReadRarely) {
    const std::string everybody = m_forest.addGroup("everybody", {{"objectSid", {m_forest.sid(513)}}});
    for (int i = 0; i < 501; ++i) m_forest.addPerson("p" + std::to_string(i));
    m_forest.domain.answersAfter = milliseconds(10);
    EXPECT_EQ(members(everybody).size(), 501u);
    EXPECT_THAT(cost(), ElementsAre(1u));
    pass(milliseconds(190));  // asking for the entry takes another ten
    EXPECT_EQ(members(everybody).size(), 501u);
    EXPECT_THAT(cost(), IsEmpty());
    EXPECT_EQ(members(everybody).size(), 501u);
    EXPECT_THAT(cost(), ElementsAre(1u));
}

TEST_F(MembersTest, ALargeGroupIsReadATenthOfAHundredToASearch) {
    const std::string large = m_forest.addGroup("large");
    for (int i = 0; i < 21; ++i) m_forest.join(large, addPerson("p" + std::to_string(i)));
    EXPECT_EQ(members(large).size(), 21u);
    EXPECT_THAT(cost(), ElementsAre(3u, 1u));
}

TEST_F(MembersTest, WhatWasFoundBeforeTheTimeWasUpNeedNotBeFoundAgain) {
    const std::string large = m_forest.addGroup("large");
    for (int i = 0; i < 1010; ++i)
        m_forest.change(large, "member", "CN=p" + std::to_string(i) + "," + kPeople);
    m_forest.domain.next(Mishap::failOver(Mishap::When::Before));  // the group's own entry
    m_forest.domain.next(Mishap::failOver(Mishap::When::Before));  // the domain
    m_forest.domain.next(Mishap::failOver(Mishap::When::Before));  // the first thousand
    m_forest.domain.next(Mishap::fail(Mishap::When::Before, outOfTime()));
    EXPECT_FALSE(membersOf({large}).has_value());
    EXPECT_THAT(cost(), ElementsAre(100u, 1u));
    EXPECT_THAT(members(large), IsEmpty());
    EXPECT_THAT(cost(), ElementsAre(1u, 1u));
}

TEST_F(MembersTest, TooManyGroupsAreAFailureAndNoPartOfTheAnswer) {
    AdMemberships few(m_forest.network, 3);
    const std::string one = addGroup("one", {m_ann}), two = addGroup("two", {one}),
                      three = addGroup("three", {two});
    const std::string four = addGroup("four", {three});
    const auto ask = [&](const std::string& dn) {
        const Entry group = entry(dn);
        return few.memberUids({m_forest.place, *m_ids, m_naming, m_forest.soon()}, {&group});
    };
    ASSERT_TRUE(ask(three).has_value());
    EXPECT_THAT(ask(three)->front(), ElementsAre("ann"));
    const auto many = ask(four);
    ASSERT_FALSE(many.has_value());
    EXPECT_EQ(many.error().code, LDAP_ADMINLIMIT_EXCEEDED);
    EXPECT_EQ(many.error().text, "membership goes through more than 3 groups (ad.groups.max)");
    EXPECT_EQ(many.error().told, "membership goes through too many groups");
    EXPECT_FALSE(many.error().lost);
}

TEST_F(MembersTest, AFailureAnywhereIsOne) {
    const std::string dn = addGroup("g", {m_ann});
    const Entry group = entry(dn);
    for (const int before : {0, 0, 1}) {  // the domain, once; people, primary groups
        for (int i = 0; i < before; ++i) m_forest.domain.next(Mishap::failOver(Mishap::When::After));
        m_forest.domain.next(Mishap::fail(Mishap::When::Middle, Mishap::unreachable()));
        EXPECT_FALSE(m_memberships.memberUids({m_forest.place, *m_ids, m_naming, m_forest.soon()}, {&group})
                         .has_value());
        ASSERT_TRUE(m_forest.network.describe(m_forest.place, m_forest.soon()).has_value());
    }
    EXPECT_THAT(members(dn), ElementsAre("ann"));
}

TEST_F(MembersTest, APrimaryGroupThatBreaksOffIsReadAnew) {
    const std::string everybody = m_forest.addGroup("everybody", {{"objectSid", {m_forest.sid(513)}}});
    m_forest.addPerson("dora");
    m_forest.addPerson("eve");
    const Entry group = entry(everybody);
    m_forest.domain.next(Mishap::failOver(Mishap::When::Before));  // the domain
    m_forest.domain.next(Mishap::failOver(Mishap::When::Middle));
    const auto found =
        m_memberships.memberUids({m_forest.place, *m_ids, m_naming, m_forest.soon()}, {&group});
    ASSERT_TRUE(found.has_value());
    EXPECT_THAT(found->front(), ElementsAre("dora", "eve"));
}

// --------------------------------------------------------------------- upwards

TEST_F(MembersTest, TheGroupsOfAPersonAreThoseAboveAtAnyDepth) {
    const std::string one = addGroup("one", {m_ann}), two = addGroup("two", {one}),
                      three = addGroup("three", {two, one});
    addGroup("other", {m_ben});
    EXPECT_THAT(groups("ann"), ElementsAre(one, three, two));
    EXPECT_THAT(groups("nobody"), IsEmpty());
    EXPECT_THAT(groups(""), IsEmpty());
}

TEST_F(MembersTest, GroupsAreReadLevelByLevelAndEachOnce) {
    const std::string one = addGroup("one", {m_ann}), two = addGroup("two", {one});
    m_forest.join(one, two);
    m_forest.network.takeExchanges();
    const auto found = m_memberships.groupsOf({m_forest.place, *m_ids, m_naming, m_forest.soon()}, "ann");
    ASSERT_TRUE(found.has_value());
    EXPECT_EQ(found->size(), 2u);
    // The person; the primary group and what is named; the level above; what is stored.
    EXPECT_THAT(cost(), ElementsAre(1u, 2u, 1u, 1u));
}

TEST_F(MembersTest, ThePrimaryGroupIsAmongThem) {
    const std::string everybody = m_forest.addGroup("everybody", {{"objectSid", {m_forest.sid(513)}}});
    const std::string around = addGroup("around", {everybody});
    m_forest.addPerson("dora");
    m_forest.addPerson("eve", {{"primaryGroupID", {"0"}}});
    m_forest.addPerson("fay", {{"primaryGroupID", {"x"}}});
    m_forest.addPerson("gil", {{"objectSid", {}}});
    EXPECT_THAT(groups("dora"), ElementsAre(around, everybody));
    for (const char* name : {"eve", "fay", "gil"}) EXPECT_THAT(groups(name), IsEmpty()) << name;
}

TEST_F(MembersTest, APrimaryGroupThatIsAlsoAMemberIsReadOnce) {
    const std::string everybody = m_forest.addGroup("everybody", {{"objectSid", {m_forest.sid(513)}}});
    const std::string around = addGroup("around", {everybody});
    m_forest.join(everybody, around);
    m_forest.addPerson("dora");
    m_forest.network.takeExchanges();
    ASSERT_TRUE(
        m_memberships.groupsOf({m_forest.place, *m_ids, m_naming, m_forest.soon()}, "dora").has_value());
    EXPECT_THAT(cost(), ElementsAre(1u, 1u, 1u, 1u));  // the person, either group, what is stored
}

TEST_F(MembersTest, WithoutAPrimaryGroupNoneIsAskedFor) {
    m_forest.addPerson("eve", {{"primaryGroupID", {"0"}}});
    m_forest.addPerson("fay", {{"primaryGroupID", {"x"}}});
    m_forest.addPerson("gil", {{"objectSid", {}}});
    m_forest.addPerson("one", {{"primaryGroupID", {"1"}}});
    for (const char* name : {"eve", "fay", "gil"}) {
        pass(milliseconds(1000));
        m_forest.network.takeExchanges();
        groups(name);
        EXPECT_THAT(cost(), ElementsAre(1u, 1u)) << name;  // the person, what is stored
    }
    groups("one");
    EXPECT_THAT(cost(), ElementsAre(1u, 1u));  // the person, the primary group; what is stored is known
}

TEST_F(MembersTest, WhatIsStoredWithGroupsCountsBesideMembershipEachOnce) {
    const std::string one = addGroup("one", {m_ann});
    m_forest.change(one, "memberUid", "ann");
    m_forest.change(m_staff, "memberUid", "ann");
    m_forest.change(m_staff, "memberUid", "ghost");
    EXPECT_THAT(groups("ann"), ElementsAre(one, m_staff));
    pass(milliseconds(1000));
    EXPECT_THAT(groups("ghost"), ElementsAre(m_staff));
}

TEST_F(MembersTest, APersonIsFoundByTheAccountsNameAndOnlyOtherwiseByUid) {
    const std::string cleo = addPerson("cleo", {{"uid", {"cl"}}});
    const std::string one = addGroup("one", {cleo});
    addPerson("cl2", {{"uid", {"ann"}}});
    m_forest.join(addGroup("two", {}), "CN=cl2," + std::string(kPeople));
    EXPECT_THAT(groups("cl"), ElementsAre(one));
    EXPECT_THAT(groups("cleo"), IsEmpty());  // that name is not shown
    EXPECT_THAT(groups("ann"), IsEmpty());   // the account of that name shows it
}

TEST_F(MembersTest, ForApplicationsAreAllPeopleByTheirAccountsNames) {
    m_naming = Naming::Applications;
    const std::string cleo = addPerson("cleo", {{"uid", {"cl"}}});
    const std::string guest = addPerson("guest", {{"uidNumber", {}}});
    const std::string inner = addGroup("inner", {guest, cleo});
    const std::string outer = addGroup("outer", {inner, m_ann});
    EXPECT_THAT(members(outer), ElementsAre(kUnnumbered + std::string("guest"), "ann", "cleo"));
    EXPECT_THAT(groups("guest"), ElementsAre(inner, outer));
    EXPECT_THAT(groups("cleo"), ElementsAre(inner, outer));
    EXPECT_THAT(groups("cl"), IsEmpty()) << "and nobody looks for a uid";
    m_naming = Naming::Hosts;
    EXPECT_THAT(members(outer), ElementsAre("ann", "cl"))
        << "what is remembered of the others does not count";
}

TEST_F(MembersTest, AccountsThatShowAnotherNameDoNotCount) {
    const std::string one = addGroup("one", {m_ann});
    EXPECT_THAT(groups("ANN"), IsEmpty());
    const std::string bare = addPerson("bare", {{"uidNumber", {}}});
    m_forest.join(one, bare);
    EXPECT_THAT(groups("bare"), IsEmpty());
}

TEST_F(MembersTest, OnlyGroupsLeadOn) {
    m_forest.domain.add("CN=list," + std::string(kGroups),
                        {{"objectClass", {"container"}}, {"memberOf", {m_staff}}});
    m_forest.change(m_ann, "memberOf", "CN=list," + std::string(kGroups));
    EXPECT_THAT(groups("ann"), IsEmpty());
}

TEST_F(MembersTest, TooManyGroupsAboveAreAFailure) {
    AdMemberships few(m_forest.network, 2);
    const std::string one = addGroup("one", {m_ann}), two = addGroup("two", {one});
    ASSERT_TRUE(few.groupsOf({m_forest.place, *m_ids, m_naming, m_forest.soon()}, "ann").has_value());
    addGroup("three", {two});
    const auto many = few.groupsOf({m_forest.place, *m_ids, m_naming, m_forest.soon()}, "ann");
    ASSERT_FALSE(many.has_value());
    EXPECT_EQ(many.error().text, "membership goes through more than 2 groups (ad.groups.max)");
}

TEST_F(MembersTest, AFailureOnTheWayUpIsOne) {
    const std::string one = addGroup("one", {m_ann});
    for (const int before : {0, 0, 1, 2}) {  // the domain, once; the person, the level, what is stored
        for (int i = 0; i < before; ++i) m_forest.domain.next(Mishap::failOver(Mishap::When::After));
        m_forest.domain.next(Mishap::fail(Mishap::When::Middle, Mishap::unreachable()));
        EXPECT_FALSE(
            m_memberships.groupsOf({m_forest.place, *m_ids, m_naming, m_forest.soon()}, "ann").has_value());
        ASSERT_TRUE(m_forest.network.describe(m_forest.place, m_forest.soon()).has_value());
    }
    EXPECT_THAT(groups("ann"), ElementsAre(one));
}

TEST_F(MembersTest, NobodysNameIsLookedForTwiceInTheDomain) {
    m_forest.network.takeExchanges();
    groups("nobody");
    EXPECT_THAT(cost(), ElementsAre(1u, 1u, 1u));  // by account, by uid, what is stored
    pass(milliseconds(1000));
    groups("ann");
    EXPECT_THAT(cost(), ElementsAre(1u, 1u, 1u));  // by account, the primary group, what is stored
}

}  // namespace
}  // namespace vexagent
