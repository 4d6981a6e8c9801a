// SPDX-License-Identifier: Apache-2.0
// What searches and look-ups of a domain come to.

#include "agent/ad/searches.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/ad/forest_testing.h"
#include "agent/directory/filter_shape.h"
#include "vex/wire.h"

namespace vexagent {
namespace {

using test::kGroups;
using test::kPeople;
using test::kRoot;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

constexpr std::size_t kBatch = vex::wire::kBatchObjects;

std::string value(const Object& object, const std::string& name) {
    for (const Attribute& attribute : object)
        if (attribute.name == name) {
            std::string text;
            for (const std::string& one : attribute.values) text += (text.empty() ? "" : ",") + one;
            return text;
        }
    return "";
}

std::vector<std::string> names(const std::vector<Object>& objects) {
    std::vector<std::string> all;
    for (const Object& object : objects) all.push_back(value(object, "cn"));
    return all;
}

class SearchesTest : public ::testing::Test {
  protected:
    SearchesTest() : m_far(m_forest.addDomain("far.example.com", "FAR")) {
        m_ann = m_forest.addPerson("ann");
        m_ben = m_forest.addPerson("ben");
        m_staff = m_forest.addGroup("staff");
        m_forest.join(m_staff, m_ann);
        m_far.add(
            "CN=eve,DC=far,DC=example,DC=com",
            {{"objectClass", {"user"}}, {"cn", {"eve"}}, {"uid", {"evelyn"}}, {"unixHomeDirectory", {"/e"}}});
    }
    static Query query(const std::string& filter, std::vector<std::string> attributes = {"cn"}) {
        Query query;
        query.filter = filter;
        query.view.attributes = std::move(attributes);
        return query;
    }
    // The names found, or the failure.
    std::vector<std::string> found(const Query& query) {
        const auto answer = m_searches.search(query);
        if (!answer)
            return {std::to_string(answer.error().code) + " " + std::to_string(answer.error().errCode) + " " +
                    answer.error().errText};
        EXPECT_EQ(answer->rest, nullptr);
        return names(answer->first.objects);
    }
    // An attribute of what is fetched, or the failure.
    static std::string told(const Expected<Object, Result>& object, const std::string& name) {
        return object ? value(*object, name)
                      : std::to_string(object.error().code) + " " + object.error().errText;
    }
    std::string fetched(const std::string& domain, const std::string& dn, const std::string& name = "cn") {
        return told(m_searches.fetch(domain, dn, {false, {name}}), name);
    }
    std::string lookedUp(const std::string& dn, const std::string& name = "cn") {
        return told(m_searches.lookup(guidText(FakeDomain::guidOf(dn)), {false, {name}}), name);
    }
    void addCrowd(int people) {
        for (int i = 0; i < people; ++i)
            m_forest.addPerson("p" + std::to_string(1000 + i), {{"description", {"crowd"}}});
    }
    std::size_t asked(Exchange::Kind kind) {
        const std::size_t count = m_forest.network.count(kind);
        m_forest.network.takeExchanges();
        return count;
    }

    test::ExampleForest m_forest;
    FakeDomain& m_far;
    std::string m_ann, m_ben, m_staff;
    Domains m_domains{m_forest.network, m_forest.options};
    Searches m_searches{m_forest.network, m_forest.options, m_domains};
};

const char* const kNoSuchBase = "9 32 the search base does not exist";

// -------------------------------------------------------------------- searches

TEST_F(SearchesTest, AQueryGivesObjects) {
    const auto answer = m_searches.search(query("(sAMAccountName=ann)", {"cn", "uidNumber"}));
    ASSERT_TRUE(answer.has_value());
    ASSERT_EQ(answer->first.objects.size(), 1u);
    EXPECT_EQ(answer->first.total, 1u);
    EXPECT_EQ(answer->rest, nullptr);
    const Object& ann = answer->first.objects[0];
    EXPECT_EQ(value(ann, "_dn"), m_ann);
    EXPECT_EQ(value(ann, "_GUID"), guidText(FakeDomain::guidOf(m_ann)));
    EXPECT_EQ(value(ann, "_objectCategory"), "Person");
    EXPECT_EQ(value(ann, "cn"), "ann");
}

TEST_F(SearchesTest, OneSearchCostsOneQuestion) {
    found(query("(cn=ann)"));
    asked(Exchange::Kind::Open);
    found(query("(cn=ann)"));
    EXPECT_EQ(m_forest.network.exchanges.size(), 1u);
    EXPECT_EQ(asked(Exchange::Kind::Open), 1u);
}

TEST_F(SearchesTest, WhatCannotMatchAsksOnlyWhetherTheBaseIsThere) {
    found(query("(cn=ann)"));
    m_forest.network.takeExchanges();
    Query nothing = query("(unicodePwd=x)");
    EXPECT_THAT(found(nothing), IsEmpty());
    EXPECT_EQ(m_forest.network.exchanges.size(), 1u);
    EXPECT_EQ(asked(Exchange::Kind::Search), 1u);
    nothing.base = "OU=Gone,DC=example,DC=com";
    EXPECT_THAT(found(nothing), ElementsAre(kNoSuchBase));
    nothing.base = "";
    nothing.domain = "$";  // has no root that could be missing
    m_forest.network.takeExchanges();
    EXPECT_THAT(found(nothing), IsEmpty());
    EXPECT_EQ(m_forest.network.exchanges.size(), 0u);
}

TEST_F(SearchesTest, ABaseThatIsNotThereIsAFailureExceptForARewrittenOne) {
    Query below = query("");
    below.base = std::string("CN=evelyn,") + kPeople;
    EXPECT_THAT(found(below), ElementsAre(kNoSuchBase));
    m_forest.addPerson("eve", {{"uid", {"evelyn"}}});
    EXPECT_THAT(found(below), ElementsAre(kNoSuchBase));  // of the scope base only
    below.scope = LDAP_SCOPE_BASE;
    EXPECT_THAT(found(below), ElementsAre("eve"));
    below.base = std::string("CN=nobody,") + kPeople;
    EXPECT_THAT(found(below), ElementsAre(kNoSuchBase));
    below.domain = "$";
    below.base = std::string("CN=evelyn,") + kPeople;
    EXPECT_THAT(found(below), ElementsAre(kNoSuchBase));
}

TEST_F(SearchesTest, ARewrittenBaseThatTwoHaveIsNobodys) {
    m_forest.addPerson("eve", {{"uid", {"both"}}});
    m_forest.addPerson("fay", {{"uid", {"both"}}});
    Query one = query("");
    one.base = std::string("CN=both,") + kPeople;
    one.scope = LDAP_SCOPE_BASE;
    EXPECT_THAT(found(one), ElementsAre(kNoSuchBase));
}

TEST_F(SearchesTest, WhereARewrittenBaseCannotBeLookedForThatIsTheFailure) {
    Query one = query("");
    one.base = std::string("CN=nobody,") + kPeople;
    one.scope = LDAP_SCOPE_BASE;
    found(one);
    m_forest.domain.next(Mishap::failOver(Mishap::When::Before));
    m_forest.domain.next(Mishap::fail(Mishap::When::Before, Mishap::unreachable()));
    EXPECT_THAT(found(one), ElementsAre("12 -1 the domain is out of reach"));
}

TEST_F(SearchesTest, SubordinatesAreAllButTheBase) {
    Query below = query("(objectClass=*)", {"cn"});
    below.base = m_staff;
    EXPECT_THAT(found(below), ElementsAre("staff"));
    below.scope = 3;
    EXPECT_THAT(found(below), IsEmpty());
    below.base = kGroups;
    EXPECT_THAT(found(below), ElementsAre("staff"));
}

TEST_F(SearchesTest, TypedOnesFindUnixKindsOnly) {
    m_forest.domain.add("CN=box," + std::string(kPeople), {{"objectClass", {"container"}}, {"cn", {"box"}}});
    Query all = query("(|(cn=box)(cn=ann))");
    EXPECT_THAT(found(all), UnorderedElementsAre("box", "ann"));
    all.typed = true;
    EXPECT_THAT(found(all), ElementsAre("ann"));
}

TEST_F(SearchesTest, WhatHasNoGuidIsNoObject) {
    m_forest.domain.add("CN=odd," + std::string(kPeople), {{"cn", {"odd"}}, {"objectGUID", {"short"}}});
    EXPECT_THAT(found(query("(cn=odd)")), IsEmpty());
}

TEST_F(SearchesTest, OfOtherDomainsAndOfTheForest) {
    Query far = query("(cn=eve)");
    EXPECT_THAT(found(far), IsEmpty());
    far.domain = "FAR.example.com";
    EXPECT_THAT(found(far), ElementsAre("eve"));
    far.domain = "$";
    EXPECT_THAT(found(far), ElementsAre("eve"));
    far.domain = "evil.test";
    EXPECT_THAT(found(far), ElementsAre("12 52 there is no such domain"));
}

TEST_F(SearchesTest, AnObjectOfTheCatalogIsNotCalledUseless) {
    Query far = query("(cn=eve)");
    far.domain = "$";
    EXPECT_EQ(value(m_searches.search(far)->first.objects[0], "_nssEntryInvalid"), "");
    far.domain = "far.example.com";
    EXPECT_EQ(value(m_searches.search(far)->first.objects[0], "_nssEntryInvalid"), "TRUE");
}

TEST_F(SearchesTest, WithoutTheJoinedDomainThereIsNoCatalog) {
    m_forest.domain.answers = false;
    Query all = query("");
    all.domain = "$";
    EXPECT_THAT(found(all), ElementsAre("12 -1 the domain is out of reach"));
}

TEST_F(SearchesTest, GroupsShowTheirMembersInTheZonesView) {
    Query group = query("(cn=staff)", {"memberUid"});
    EXPECT_EQ(value(m_searches.search(group)->first.objects[0], "memberUid"), "");
    group.view.zone = true;
    EXPECT_EQ(value(m_searches.search(group)->first.objects[0], "memberUid"), "ann");
}

TEST_F(SearchesTest, MembersThatCannotBeReadAreAFailureOfTheWhole) {
    Query group = query("(cn=staff)", {"memberUid"});
    group.view.zone = true;
    found(query("(cn=ann)"));
    m_forest.domain.next(Mishap::failOver(Mishap::When::Before));
    m_forest.domain.next(Mishap::fail(Mishap::When::Before, Mishap::unreachable()));
    EXPECT_THAT(found(group), ElementsAre("12 -1 the domain is out of reach"));
}

TEST_F(SearchesTest, EachGroupShowsItsOwnMembers) {
    m_forest.join(m_forest.addGroup("other"), m_ben);
    Query groups = query("(|(cn=staff)(cn=ann)(cn=other))", {"cn", "memberUid"});
    groups.view.zone = true;
    const auto answer = m_searches.search(groups);
    ASSERT_TRUE(answer.has_value());
    std::vector<std::string> all;
    for (const Object& object : answer->first.objects)
        all.push_back(value(object, "cn") + ":" + value(object, "memberUid"));
    EXPECT_THAT(all, UnorderedElementsAre("ann:", "staff:ann", "other:ben"));
}

TEST_F(SearchesTest, WhatIsConfidentialIsNotShown) {
    m_forest.change(m_ann, "shoeSize", "44");
    EXPECT_EQ(value(m_searches.search(query("(cn=ann)", {}))->first.objects[0], "shoeSize"), "");
    EXPECT_NE(value(m_searches.search(query("(cn=ann)", {}))->first.objects[0], "uidNumber"), "");
}

TEST_F(SearchesTest, ARequestHasTheTimeOfTheSettings) {
    m_forest.options.timeout = milliseconds(1000);
    found(query("(cn=ann)"));
    m_forest.domain.answersAfter = milliseconds(60'000);
    const Moment before = m_forest.network.clock().now();
    EXPECT_THAT(found(query("(cn=ann)")), ElementsAre("8 3 the time for the request is up"));
    EXPECT_EQ(m_forest.network.clock().now() - before, milliseconds(1000));
}

// --------------------------------------------------------------------- batches

TEST_F(SearchesTest, MoreThanABatchComesInBatches) {
    addCrowd(static_cast<int>(2 * kBatch) + 1);
    auto answer = m_searches.search(query("(description=crowd)"));
    ASSERT_TRUE(answer && answer->rest);
    EXPECT_EQ(answer->first.objects.size(), kBatch);
    EXPECT_EQ(answer->first.total, kBatch);
    EXPECT_FALSE(answer->rest->atEnd());
    Batch batch;
    ASSERT_TRUE(answer->rest->next(batch).ok());
    EXPECT_EQ(batch.objects.size(), kBatch);
    EXPECT_EQ(batch.total, 2 * kBatch);
    EXPECT_EQ(value(batch.objects[0], "cn"), "p1256");
    ASSERT_FALSE(answer->rest->atEnd());
    Batch last;
    ASSERT_TRUE(answer->rest->next(last).ok());
    EXPECT_EQ(last.objects.size(), 1u);
    EXPECT_EQ(last.total, 2 * kBatch + 1);
    EXPECT_TRUE(answer->rest->atEnd());
    EXPECT_EQ(m_forest.network.openSearches(), 0u);  // before the cursor is given up
}

TEST_F(SearchesTest, TheFirstBatchIsAsLargeAsTheClientWantsItAndNoLargerThanOthers) {
    addCrowd(static_cast<int>(kBatch) + 1);
    Query some = query("(description=crowd)");
    some.firstBatch = 3;
    EXPECT_EQ(m_searches.search(some)->first.objects.size(), 3u);
    some.firstBatch = kBatch + 1;
    EXPECT_EQ(m_searches.search(some)->first.objects.size(), kBatch);
    some.firstBatch = kBatch;
    EXPECT_EQ(m_searches.search(some)->first.objects.size(), kBatch);
}

TEST_F(SearchesTest, ABatchEndsWithItsBytesToo) {
    const std::string large(vex::wire::kBatchBytes / 2, 'x');
    for (const char* name : {"a", "b", "c"})
        m_forest.addPerson(name, {{"info", {large}}, {"description", {"crowd"}}});
    auto answer = m_searches.search(query("(description=crowd)", {"info"}));
    ASSERT_TRUE(answer && answer->rest);
    EXPECT_EQ(answer->first.objects.size(), 2u);
}

TEST_F(SearchesTest, ABatchShowsMembersAndHasATimeOfItsOwn) {
    m_forest.options.timeout = milliseconds(1000);
    addCrowd(2);
    Query all = query("(|(description=crowd)(cn=staff))", {"cn", "memberUid"});
    all.view.zone = true;
    all.firstBatch = 1;
    m_forest.domain.add(m_staff, {});
    m_forest.change(m_staff, "description", "crowd");  // now the last one
    auto answer = m_searches.search(all);
    ASSERT_TRUE(answer && answer->rest);
    m_forest.network.time.advance(milliseconds(3'600'000));
    Batch batch;
    ASSERT_TRUE(answer->rest->next(batch).ok());
    ASSERT_THAT(names(batch.objects), ElementsAre("p1001", "staff"));
    EXPECT_EQ(value(batch.objects[1], "memberUid"), "ann");
}

TEST_F(SearchesTest, ALaterBatchThatFailsEndsTheSearch) {
    addCrowd(static_cast<int>(kBatch) + 1);
    auto answer = m_searches.search(query("(description=crowd)"));
    ASSERT_TRUE(answer && answer->rest);
    m_forest.domain.next(Mishap::fail(Mishap::When::Middle, Mishap::unreachable()));
    Batch batch;
    EXPECT_EQ(answer->rest->next(batch).code, VEX_UNAVAILABLE);
    EXPECT_TRUE(answer->rest->atEnd());
    EXPECT_THAT(batch.objects, IsEmpty());
}

TEST_F(SearchesTest, MembersOfALaterBatchThatCannotBeReadAreAFailure) {
    addCrowd(1);
    Query all = query("(|(description=crowd)(cn=staff))", {"cn", "memberUid"});
    all.view.zone = true;
    all.firstBatch = 1;
    m_forest.domain.add(m_staff, {});
    m_forest.change(m_staff, "description", "crowd");
    auto answer = m_searches.search(all);
    ASSERT_TRUE(answer && answer->rest);
    m_forest.domain.next(Mishap::failOver(Mishap::When::Before));
    m_forest.domain.next(Mishap::fail(Mishap::When::Before, Mishap::unreachable()));
    Batch batch;
    EXPECT_EQ(answer->rest->next(batch).code, VEX_UNAVAILABLE);
    EXPECT_TRUE(answer->rest->atEnd());
}

TEST_F(SearchesTest, TooManyOpenSearchesAreToldSo) {
    m_forest.network.mostOpen = 1;
    addCrowd(static_cast<int>(kBatch) + 1);
    auto reading = m_searches.search(query("(description=crowd)"));
    ASSERT_TRUE(reading && reading->rest);
    EXPECT_THAT(found(query("(description=crowd)")), ElementsAre("8 51 too many searches are open"));
    EXPECT_THAT(found(query("(cn=ann)")), ElementsAre("ann"));
    reading->rest.reset();
    EXPECT_NE(m_searches.search(query("(description=crowd)"))->rest, nullptr);
}

// What is sent at a time, where a controller sends pages.
TEST_F(SearchesTest, OfASearchForAFewNoMoreAreSent) {
    struct Pages : FakeNetwork {
        Expected<OpenedSearch, LdapFailure> open(const Place& place, LongSearch search,
                                                 const Deadline& deadline) override {
            page = search.page;
            return FakeNetwork::open(place, std::move(search), deadline);
        }
        std::size_t page = 0;
    };
    Pages network;
    network.addDomain("example.com");
    Domains domains(network, m_forest.options);
    Searches searches(network, m_forest.options, domains);
    const auto page = [&](std::size_t first, bool typed) {
        Query some = query("(cn=x)");
        some.firstBatch = first;
        some.typed = typed;
        EXPECT_TRUE(searches.search(some).has_value());
        return network.page;
    };
    EXPECT_EQ(page(0, false), 1000u);
    EXPECT_EQ(page(10, false), 10u);
    EXPECT_EQ(page(10, true), 1000u);  // of others as many as one likes may come
    EXPECT_EQ(page(5000, false), 1000u);
}

// --------------------------------------------------------------------- objects

TEST_F(SearchesTest, AnObjectIsFetchedByItsDnOrARewrittenOne) {
    EXPECT_EQ(fetched("", m_ann), "ann");
    m_forest.addPerson("eve", {{"uid", {"evelyn"}}});
    EXPECT_EQ(fetched("", std::string("cn=evelyn,") + kPeople), "eve");
    EXPECT_EQ(fetched("", std::string("cn=nobody,") + kPeople), "9 no object has this DN");
    EXPECT_EQ(fetched("", "no DN"), "9 no object has this DN");
}

TEST_F(SearchesTest, ADnOfTheForestLeadsToItsDomain) {
    const std::string eve = "CN=eve,DC=far,DC=example,DC=com";
    EXPECT_EQ(fetched("$", eve, "unixHomeDirectory"), "/e");  // the whole of it
    EXPECT_EQ(fetched("far.example.com", eve), "eve");
    EXPECT_EQ(fetched("", eve), "9 no object has this DN");
    EXPECT_EQ(fetched("$", m_ann), "ann");
    EXPECT_EQ(fetched("$", "CN=x,DC=evil,DC=test"), "12 there is no such domain");
    EXPECT_EQ(fetched("evil.test", m_ann), "12 there is no such domain");
}

TEST_F(SearchesTest, WhatCannotBeFetchedIsAFailure) {
    fetched("", m_ann);
    m_forest.domain.answers = false;
    EXPECT_EQ(fetched("", m_ann), "12 the domain is out of reach");
}

TEST_F(SearchesTest, WithoutASchemaNothingIsFetchedOrLookedUp) {
    m_forest.domain.answers = false;
    EXPECT_EQ(fetched("", m_ann), "12 the domain is out of reach");
    EXPECT_EQ(lookedUp(m_ann), "12 the domain is out of reach");
}

TEST_F(SearchesTest, AFetchedGroupShowsItsMembers) {
    EXPECT_EQ(told(m_searches.fetch("", m_staff, {true, {"memberUid"}}), "memberUid"), "ann");
}

TEST_F(SearchesTest, AMemberThatCannotBeReadIsAFailureOfTheFetch) {
    fetched("", m_staff);
    m_forest.domain.next(Mishap::failOver(Mishap::When::Before));
    m_forest.domain.next(Mishap::fail(Mishap::When::Before, Mishap::unreachable()));
    EXPECT_FALSE(m_searches.fetch("", m_staff, {true, {"memberUid"}}).has_value());
}

TEST_F(SearchesTest, ALookUpIsOneQuestion) {
    EXPECT_EQ(lookedUp(m_ann), "ann");
    m_forest.network.takeExchanges();
    EXPECT_EQ(lookedUp(m_ann), "ann");
    EXPECT_EQ(m_forest.network.exchanges.size(), 1u);
}

TEST_F(SearchesTest, AGuidOfTheForestIsLookedUpThere) {
    EXPECT_EQ(lookedUp("CN=eve,DC=far,DC=example,DC=com", "unixHomeDirectory"), "/e");
    EXPECT_EQ(lookedUp("CN=gone,DC=far,DC=example,DC=com"), "36 no object has this GUID");
}

TEST_F(SearchesTest, AForestOfOneDomainIsNotAskedTwice) {
    m_forest.domain.info.domains = 1;
    lookedUp(m_ann);
    m_forest.network.takeExchanges();
    EXPECT_EQ(lookedUp("CN=gone,DC=example,DC=com"), "36 no object has this GUID");
    EXPECT_EQ(m_forest.network.exchanges.size(), 1u);
}

TEST_F(SearchesTest, WhatIsNoGuidIsNotAskedFor) {
    EXPECT_EQ(told(m_searches.lookup("nonsense", {}), "cn"), "36 no object has this GUID");
    EXPECT_EQ(m_forest.network.exchanges.size(), 0u);
}

TEST_F(SearchesTest, AFailureIsNotAnObjectThatHasGone) {
    lookedUp(m_ann);
    m_forest.domain.next(Mishap::fail(Mishap::When::Before, {LDAP_BUSY, "busy"}));
    EXPECT_EQ(lookedUp(m_ann), "8 Server is busy");
    // In the catalog: it is asked second.
    m_forest.domain.next(Mishap::failOver(Mishap::When::Before));
    m_forest.domain.next(Mishap::fail(Mishap::When::Before, Mishap::unreachable()));
    EXPECT_EQ(lookedUp("CN=eve,DC=far,DC=example,DC=com"), "12 the domain is out of reach");
}

// ------------------------------------------------------------------- the rest

TEST_F(SearchesTest, SupportedAreTheSchemasAttributes) {
    const auto names = m_searches.supportedAttributes();
    ASSERT_TRUE(names.has_value());
    EXPECT_THAT(*names, ElementsAre("uid"));
}

TEST_F(SearchesTest, WhereNoSchemaIsToldNoneIsSupported) {
    m_forest.domain.remove(std::string("CN=Aggregate,") + test::kSchema);
    const auto names = m_searches.supportedAttributes();
    ASSERT_FALSE(names.has_value());
    EXPECT_EQ(names.error().code, VEX_DIRECTORY_ERROR);
    EXPECT_EQ(names.error().errText, "the controller does not tell its schema");
}

TEST_F(SearchesTest, WhereNobodyAnswersThatIsTold) {
    m_forest.domain.answers = false;
    EXPECT_EQ(m_searches.supportedAttributes().error().code, VEX_UNAVAILABLE);
}

TEST(IsQuick, WhatAnIndexAnswersAndWhatIsOneObject) {
    EXPECT_TRUE(Searches::isQuick(LDAP_SCOPE_SUBTREE, "(cn=ann)"));
    EXPECT_FALSE(Searches::isQuick(LDAP_SCOPE_SUBTREE, "(uid=ann)"));
    EXPECT_TRUE(Searches::isQuick(LDAP_SCOPE_BASE, "(uid=ann)"));
    std::string large = "(|";
    for (std::size_t i = 0; i < kMostForQuick; ++i) large += "(cn=x)";
    EXPECT_TRUE(Searches::isQuick(LDAP_SCOPE_SUBTREE, large + ")"));
    large += "(cn=x)";
    EXPECT_FALSE(Searches::isQuick(LDAP_SCOPE_SUBTREE, large + ")"));
    EXPECT_FALSE(Searches::isQuick(LDAP_SCOPE_BASE, large + ")"));
}

// --------------------------------------------------------------- look-ups ahead

std::string guidTextOf(const std::string& dn) {
    return guidText(FakeDomain::guidOf(dn));
}

TEST_F(SearchesTest, LookUpsAheadAreOneQuestionAndKeepTheirOrder) {
    ASSERT_TRUE(m_searches.lookup(guidTextOf(m_ann), {}));  // learns the schema
    m_forest.network.takeExchanges();
    const std::vector<Object> objects =
        m_searches.lookupAhead({guidTextOf(m_ben), guidTextOf(m_staff), guidTextOf(m_ann)}, {});
    EXPECT_THAT(names(objects), ElementsAre("ben", "staff", "ann"));
    ASSERT_EQ(m_forest.network.exchanges.size(), 1u);
    EXPECT_EQ(m_forest.network.exchanges[0].searches.size(), 1u);
}

TEST_F(SearchesTest, WhatIsLookedUpAheadIsWhatALookUpShows) {
    View view;
    view.zone = true;
    const auto alone = m_searches.lookup(guidTextOf(m_ann), view);
    ASSERT_TRUE(alone);
    const std::vector<Object> ahead = m_searches.lookupAhead({guidTextOf(m_ann)}, view);
    ASSERT_EQ(ahead.size(), 1u);
    ASSERT_EQ(ahead[0].size(), alone->size());
    for (std::size_t i = 0; i < alone->size(); ++i) {
        EXPECT_EQ(ahead[0][i].name, (*alone)[i].name);
        EXPECT_EQ(ahead[0][i].values, (*alone)[i].values);
    }
}

TEST_F(SearchesTest, GroupsWhoseMembersAreShownAreNotLookedUpAhead) {
    View view;
    view.zone = true;
    EXPECT_THAT(names(m_searches.lookupAhead({guidTextOf(m_staff), guidTextOf(m_ben)}, view)),
                ElementsAre("ben"));
}

TEST_F(SearchesTest, WhatIsNotThereNoGuidOrAnotherDomainsIsLeftOutAhead) {
    EXPECT_THAT(
        names(m_searches.lookupAhead({guidTextOf("CN=gone,DC=example,DC=com"), "no GUID", "",
                                      guidTextOf("CN=eve,DC=far,DC=example,DC=com"), guidTextOf(m_ann)},
                                     {})),
        ElementsAre("ann"));
    m_forest.network.takeExchanges();
    EXPECT_THAT(m_searches.lookupAhead({"no GUID"}, {}), IsEmpty());
    EXPECT_THAT(m_forest.network.exchanges, IsEmpty());
}

TEST_F(SearchesTest, AFailureLeavesAllOutAhead) {
    ASSERT_TRUE(m_searches.lookup(guidTextOf(m_ann), {}));
    m_forest.domain.next(Mishap::fail(Mishap::When::Middle, Mishap::unreachable()));
    EXPECT_THAT(m_searches.lookupAhead({guidTextOf(m_ann), guidTextOf(m_ben)}, {}), IsEmpty());
}

TEST_F(SearchesTest, LookUpsAheadHaveHalfOfARequestsTime) {
    ASSERT_TRUE(m_searches.lookup(guidTextOf(m_ann), {}));
    m_forest.domain.answersAfter = m_forest.options.timeout / 2 - milliseconds(1);
    EXPECT_EQ(m_searches.lookupAhead({guidTextOf(m_ann)}, {}).size(), 1u);
    m_forest.domain.answersAfter = m_forest.options.timeout / 2;
    EXPECT_THAT(m_searches.lookupAhead({guidTextOf(m_ann)}, {}), IsEmpty());
}

}  // namespace
}  // namespace vexagent
