// SPDX-License-Identifier: Apache-2.0
// What a network promises, seen on the one in memory that the other tests rest on.

#include "agent/ad/network.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <krb5.h>

#include "agent/ad/network_testing.h"
#include "agent/directory/identifiers.h"
#include "vorn/dn.h"

namespace vexagent {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

constexpr char kUsers[] = "CN=Users,DC=example,DC=com";
constexpr char kAnn[] = "CN=Ann,CN=Users,DC=example,DC=com";
constexpr char kBob[] = "CN=Bob,CN=Users,DC=example,DC=com";

class NetworkTest : public ::testing::Test {
  protected:
    NetworkTest() {
        m_domain.add(kUsers, {{"objectClass", {"top", "container"}}});
        m_domain.add(kAnn, {{"objectClass", {"top", "person", "user"}},
                            {"sAMAccountName", {"ann"}},
                            {"uidNumber", {"1000"}},
                            {"userAccountControl", {"512"}},
                            {"loginShell", {"/bin/sh"}}});
        m_domain.add(kBob, {{"objectClass", {"top", "person", "user"}},
                            {"sAMAccountName", {"bob"}},
                            {"uidNumber", {"900"}},
                            {"userAccountControl", {"514"}}});
        m_domain.setPassword(kAnn, "ann", "welcome");
    }

    Deadline soon() const { return {m_network.time, milliseconds(1000)}; }

    static std::vector<std::string> names(const std::vector<Entry>& entries) {
        std::vector<std::string> names;
        for (const Entry& entry : entries) names.emplace_back(entry.first("sAMAccountName"));
        return names;
    }
    // Who is found; what the failure says.
    std::vector<std::string> found(const LdapSearch& search, const Place& place = {"example.com"}) {
        const auto entries = readOne(m_network, place, search, soon());
        return entries ? names(*entries) : std::vector<std::string>{entries.error().text};
    }
    std::vector<std::string> matching(const std::string& filter) {
        return found({"DC=example,DC=com", LDAP_SCOPE_SUBTREE, filter});
    }
    LongSearch everybody(std::size_t first) const {
        LongSearch search;
        search.search = {kUsers, LDAP_SCOPE_ONELEVEL};
        search.first = first;
        search.bytes = 1'000'000;
        return search;
    }

    FakeNetwork m_network;
    FakeDomain& m_domain = m_network.addDomain("example.com");
    const Place m_place{"Example.COM"};
};

// ------------------------------------------------------------------- searches

TEST_F(NetworkTest, AFilterFindsWhatADirectoryWouldFind) {
    EXPECT_THAT(matching("(sAMAccountName=ANN)"), ElementsAre("ann"));
    EXPECT_THAT(matching("(|(uidNumber=900)(uidNumber=1000))"), ElementsAre("ann", "bob"));
    EXPECT_THAT(matching("(uidNumber>=1000)"), ElementsAre("ann"));
    EXPECT_THAT(matching("(uidNumber<=900)"), ElementsAre("bob"));
    EXPECT_THAT(matching("(&(objectCategory=person)(!(sAMAccountName=bob)))"), ElementsAre("ann"));
    EXPECT_THAT(matching("(loginShell=*)"), ElementsAre("ann"));
    EXPECT_THAT(matching("(userAccountControl:1.2.840.113556.1.4.803:=2)"), ElementsAre("bob"));
    for (const char* pattern : {"a*", "*n", "*nn*", "a*n"})
        EXPECT_THAT(matching("(sAMAccountName=" + std::string(pattern) + ")"), ElementsAre("ann")) << pattern;
    EXPECT_THAT(matching("(sAMAccountName=b*n)"), IsEmpty());
    EXPECT_THAT(matching("(distinguishedName=cn=ann,cn=users,dc=example,dc=com)"), ElementsAre("ann"));
}

TEST_F(NetworkTest, AScopeBoundsWhatIsFound) {
    EXPECT_THAT(found({kAnn, LDAP_SCOPE_BASE}), ElementsAre("ann"));
    EXPECT_THAT(found({kUsers, LDAP_SCOPE_ONELEVEL}), ElementsAre("ann", "bob"));
    EXPECT_THAT(found({"DC=example,DC=com", LDAP_SCOPE_ONELEVEL}), ElementsAre(""));
    EXPECT_THAT(found({"<GUID=" + guidText(FakeDomain::guidOf(kAnn)) + ">", LDAP_SCOPE_BASE}),
                ElementsAre("ann"));
}

TEST_F(NetworkTest, OnlyTheAttributesThatAreWantedCome) {
    const auto some =
        readOne(m_network, m_place, {kAnn, LDAP_SCOPE_BASE, "(uidNumber=*)", {"UIDnumber"}}, soon());
    ASSERT_TRUE(some);
    ASSERT_EQ(some->front().attributes.size(), 1u);
    EXPECT_EQ(some->front().first("uidNumber"), "1000");
    const auto none =
        readOne(m_network, m_place, {kAnn, LDAP_SCOPE_BASE, "(objectClass=*)", {"1.1"}}, soon());
    ASSERT_TRUE(none);
    EXPECT_TRUE(none->front().attributes.empty());
}

TEST_F(NetworkTest, ABaseThatIsNotThereIsAFailureForOneSearchAndFindsNothingForMany) {
    const LdapSearch nobody = {"CN=Nobody,DC=example,DC=com", LDAP_SCOPE_BASE};
    const auto one = readOne(m_network, m_place, nobody, soon());
    ASSERT_FALSE(one);
    EXPECT_EQ(one.error().code, LDAP_NO_SUCH_OBJECT);
    EXPECT_TRUE(isMissing(one.error()));
    const auto many = readAll(m_network, m_place, {nobody, {kAnn, LDAP_SCOPE_BASE}}, soon());
    ASSERT_TRUE(many);
    EXPECT_THAT(names(*many), ElementsAre("ann"));
}

TEST_F(NetworkTest, ABaseOfAnotherDirectoryIsReferred) {
    const auto other = readOne(m_network, m_place, {"DC=elsewhere,DC=org", LDAP_SCOPE_BASE}, soon());
    ASSERT_FALSE(other);
    EXPECT_EQ(other.error().code, LDAP_REFERRAL);
    EXPECT_EQ(resultOf(other.error()).code, VEX_NO_SUCH_OBJECT);
}

TEST_F(NetworkTest, AFilterThatIsNoneIsAFailure) {
    EXPECT_THAT(matching("(uid="), ElementsAre("bad search filter"));
}

TEST_F(NetworkTest, ChildrenAndTrustedDomainsHoldTheirOwnAndACatalogItsForests) {
    m_network.addDomain("sub.example.com", "example.com")
        .add("CN=Eve,DC=sub,DC=example,DC=com", {{"sAMAccountName", {"eve"}}, {"loginShell", {"/bin/sh"}}});
    m_network.addDomain("partner.org").add("CN=Tom,DC=partner,DC=org", {{"sAMAccountName", {"tom"}}});
    const LdapSearch people = {"", LDAP_SCOPE_SUBTREE, "(sAMAccountName=*)"};
    EXPECT_THAT(found(people, {"example.com", Place::Kind::Catalog}), ElementsAre("ann", "bob", "eve"));
    EXPECT_THAT(found({"DC=partner,DC=org", LDAP_SCOPE_SUBTREE, "(sAMAccountName=*)"}, {"partner.org"}),
                ElementsAre("tom"));
    EXPECT_THAT(found({"CN=Eve,DC=sub,DC=example,DC=com", LDAP_SCOPE_BASE, "(loginShell=*)", {"loginShell"}},
                      {"sub.example.com"}),
                ElementsAre(""));
    const auto part = readOne(m_network, {"example.com", Place::Kind::Catalog},
                              {"CN=Eve,DC=sub,DC=example,DC=com", LDAP_SCOPE_BASE}, soon());
    ASSERT_TRUE(part);
    EXPECT_EQ(part->front().find("loginShell"), nullptr);
}

// -------------------------------------------------------------------- failures

class Collected : public EntrySink {
  public:
    void restart() override { events.emplace_back("restart"); }
    void take(Entry&& entry) override { events.emplace_back(entry.first("sAMAccountName")); }
    std::vector<std::string> events;
};

TEST_F(NetworkTest, WhatIsLostOnTheWayComesAnewFromAnotherController) {
    m_domain.next(Mishap::failOver(Mishap::When::Before));
    m_domain.next(Mishap::failOver(Mishap::When::Middle));
    m_domain.next(Mishap::failOver(Mishap::When::After));
    std::vector<std::vector<std::string>> all;
    for (int i = 0; i < 3; ++i) {
        Collected sink;
        EXPECT_TRUE(m_network.search(m_place, {{kUsers, LDAP_SCOPE_ONELEVEL}}, sink, soon()));
        all.push_back(sink.events);
    }
    EXPECT_THAT(all[0], ElementsAre("restart", "restart", "ann", "bob"));
    EXPECT_THAT(all[1], ElementsAre("restart", "ann", "restart", "ann", "bob"));
    EXPECT_THAT(all[2], ElementsAre("restart", "ann", "bob", "restart", "ann", "bob"));
    m_domain.next(Mishap::failOver(Mishap::When::Middle));
    EXPECT_THAT(found({kUsers, LDAP_SCOPE_ONELEVEL}), ElementsAre("ann", "bob"));
}

TEST_F(NetworkTest, AFailureComesBeforeAnAnswerInTheMiddleOrAfterIt) {
    for (const auto when : {Mishap::When::Before, Mishap::When::Middle, Mishap::When::After}) {
        m_domain.next(Mishap::fail(when, Mishap::unreachable()));
        EXPECT_THAT(matching("(uidNumber=*)"), ElementsAre("nobody answers"));
    }
    EXPECT_THAT(matching("(uidNumber=*)"), ElementsAre("ann", "bob"));
    EXPECT_EQ(resultOf(Mishap::unreachable()).code, VEX_UNAVAILABLE);
}

TEST_F(NetworkTest, AnAnswerTakesItsTimeAndComesInTimeOrNotAtAll) {
    m_domain.answersAfter = milliseconds(400);
    const Deadline deadline = soon();
    const LdapSearch ann = {kAnn, LDAP_SCOPE_BASE};
    EXPECT_TRUE(readOne(m_network, m_place, ann, deadline));
    EXPECT_EQ(deadline.left(), milliseconds(600));
    EXPECT_TRUE(readOne(m_network, m_place, ann, deadline));
    const auto late = readOne(m_network, m_place, ann, deadline);
    ASSERT_FALSE(late);
    EXPECT_EQ(late.error().code, LDAP_TIMELIMIT_EXCEEDED);
    EXPECT_TRUE(deadline.passed());
}

TEST_F(NetworkTest, APlaceThatNobodyHasIsOutOfReachAndSeenToBeAsked) {
    EXPECT_THAT(found({"", LDAP_SCOPE_BASE}, {"evil.org"}),
                ElementsAre("no controller of evil.org is known"));
    ASSERT_EQ(m_network.exchanges.size(), 1u);
    EXPECT_EQ(m_network.exchanges[0].place, "evil.org");
}

// --------------------------------------------------------------- open searches

TEST_F(NetworkTest, ALongSearchIsReadBatchByBatch) {
    auto opened = m_network.open(m_place, everybody(1), soon());
    ASSERT_TRUE(opened);
    EXPECT_THAT(names(opened->first), ElementsAre("ann"));
    ASSERT_NE(opened->rest, nullptr);
    EXPECT_EQ(m_network.openSearches(), 1u);
    const auto rest = opened->rest->next(10, soon());
    ASSERT_TRUE(rest);
    EXPECT_THAT(names(*rest), ElementsAre("bob"));
    EXPECT_TRUE(opened->rest->atEnd());
    opened->rest.reset();
    EXPECT_EQ(m_network.openSearches(), 0u);
}

TEST_F(NetworkTest, WhatIsNotWantedIsPassedOverAndBytesEndABatch) {
    LongSearch search = everybody(10);
    search.wanted = [](const Entry& entry) { return entry.first("sAMAccountName") != "ann"; };
    const auto all = m_network.open(m_place, search, soon());
    ASSERT_TRUE(all);
    EXPECT_THAT(names(all->first), ElementsAre("bob"));
    EXPECT_EQ(all->rest, nullptr);
    search = everybody(10);
    search.bytes = 1;
    const auto some = m_network.open(m_place, search, soon());
    ASSERT_TRUE(some);
    EXPECT_THAT(names(some->first), ElementsAre("ann"));
    EXPECT_NE(some->rest, nullptr);
}

TEST_F(NetworkTest, AFailureEndsAnOpenSearchAndThereAreNeverTooMany) {
    auto opened = m_network.open(m_place, everybody(1), soon());
    ASSERT_TRUE(opened && opened->rest);
    m_domain.next(Mishap::fail(Mishap::When::Before, Mishap::unreachable()));
    EXPECT_FALSE(opened->rest->next(10, soon()));
    EXPECT_TRUE(opened->rest->atEnd());
    m_network.mostOpen = 1;
    const auto tooMany = m_network.open(m_place, everybody(1), soon());
    ASSERT_FALSE(tooMany);
    EXPECT_EQ(tooMany.error().code, LDAP_BUSY);
}

// -------------------------------------------------------------------- passwords

TEST_F(NetworkTest, APasswordIsAcceptedFromWhoseItIs) {
    EXPECT_TRUE(m_network.bind(m_place, kAnn, "welcome", soon()));
    EXPECT_TRUE(m_network.askKdc(m_place, "ann", "welcome", soon()));
    const auto wrong = m_network.bind(m_place, kAnn, "guess", soon());
    ASSERT_FALSE(wrong);
    EXPECT_EQ(wrong.error().code, LDAP_INVALID_CREDENTIALS);
    const auto nobody = m_network.askKdc(m_place, "tom", "welcome", soon());
    ASSERT_FALSE(nobody);
    EXPECT_EQ(nobody.error().code, KRB5KDC_ERR_C_PRINCIPAL_UNKNOWN);
    m_domain.answers = false;
    EXPECT_FALSE(m_network.bind(m_place, kAnn, "welcome", soon()));
    EXPECT_EQ(m_network.askKdc(m_place, "ann", "welcome", soon()).error().code, KRB5_KDC_UNREACH);
}

TEST_F(NetworkTest, SomebodyMayBeRefusedWhateverThePassword) {
    m_domain.refuseBind(kAnn, {LDAP_INVALID_CREDENTIALS, "data 533"});
    m_domain.refuseKdc("ann", {KRB5KDC_ERR_CLIENT_REVOKED, "revoked"});
    EXPECT_EQ(m_network.bind(m_place, kAnn, "welcome", soon()).error().text, "data 533");
    EXPECT_EQ(m_network.askKdc(m_place, "ann", "welcome", soon()).error().text, "revoked");
}

// ------------------------------------------------------------------------ rest

TEST_F(NetworkTest, ADomainIsAskedOnceWhatItIs) {
    for (int i = 0; i < 2; ++i) {
        const auto info = m_network.describe(m_place, soon());
        ASSERT_TRUE(info);
        EXPECT_EQ((*info)->root, "DC=example,DC=com");
        EXPECT_EQ((*info)->netbios, "EXAMPLE");
    }
    EXPECT_EQ(m_network.count(Exchange::Kind::Describe), 1u);
}

TEST_F(NetworkTest, WhetherSomebodyAnswersIsKnownOrAsked) {
    EXPECT_TRUE(m_network.probe(m_place, Look::AtWhatIsKnown, soon()));
    m_domain.countsAsDown = true;
    EXPECT_FALSE(m_network.probe(m_place, Look::AtWhatIsKnown, soon()));
    EXPECT_EQ(m_network.count(Exchange::Kind::Probe), 0u);
    EXPECT_TRUE(m_network.probe(m_place, Look::AtEverybody, soon()));
    m_domain.answers = false;
    EXPECT_FALSE(m_network.probe(m_place, Look::IfLongAgo, soon()));
    EXPECT_EQ(m_network.count(Exchange::Kind::Probe), 2u);
}

TEST_F(NetworkTest, SomethingIsDoneFromTimeToTimeUntilItIsEnded) {
    int done = 0;
    m_network.tend([&] { ++done; });
    m_network.tendNow();
    m_network.tend({});
    m_network.tendNow();
    EXPECT_EQ(done, 1);
}

// A failure is never taken for a success.
TEST(LdapFailure, HasAReason) {
    EXPECT_EQ(LdapFailure(LDAP_SUCCESS, "").code, LDAP_OTHER);
    EXPECT_FALSE(resultOf(LdapFailure(LDAP_SUCCESS, "")).ok());
    static_assert(!std::is_default_constructible_v<LdapFailure>);
}

}  // namespace
}  // namespace vexagent
