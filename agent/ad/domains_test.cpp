// SPDX-License-Identifier: Apache-2.0
// Which domains there are.

#include "agent/ad/domains.h"

#include <gtest/gtest.h>

#include "agent/ad/forest_testing.h"
#include "agent/directory/log_testing.h"

namespace vexagent {
namespace {

constexpr milliseconds kTenMinutes{600'000};
constexpr milliseconds kMinute{60'000};

class DomainsTest : public ::testing::Test {
  protected:
    DomainsTest() : m_far(m_forest.addDomain("far.example.com", "FAR")) {
        m_forest.addTrust("other.test");
        m_domains.emplace(m_forest.network, m_forest.options);
    }
    void start(Transport transport) {
        m_domains.reset();
        m_forest.options.transport = transport;
        m_domains.emplace(m_forest.network, m_forest.options);
    }
    // The place's name, "nobody", or the failure.
    std::string named(const std::string& name) {
        const auto place = m_domains->named(name, m_forest.soon());
        if (!place) return std::to_string(place.error().code) + " " + place.error().errText;
        return *place ? (*place)->name : "nobody";
    }
    std::size_t asked() { return m_forest.network.takeExchanges().size(); }
    void pass(milliseconds time) { m_forest.network.time.advance(time); }

    test::ExampleForest m_forest;
    FakeDomain& m_far;
    std::optional<Domains> m_domains;
};

const char* const kCannotBeAsked = "12 the joined domain cannot be asked which domains there are";

TEST_F(DomainsTest, TheJoinedOneIsKnownWithoutAsking) {
    EXPECT_EQ(named(""), "example.com");
    EXPECT_EQ(named("EXAMPLE.com"), "example.com");
    EXPECT_EQ(m_domains->joined().name, "example.com");
    EXPECT_EQ(m_domains->joined().kind, Place::Kind::Domain);
    EXPECT_EQ(asked(), 0u);
}

TEST_F(DomainsTest, OthersAreThoseThatItNames) {
    EXPECT_EQ(named("FAR.Example.com"), "far.example.com");
    EXPECT_EQ(asked(), 2u);  // what it is, and its partitions
    EXPECT_EQ(named("far.example.com"), "far.example.com");
    EXPECT_EQ(named("far"), "nobody");
    EXPECT_EQ(named("evil.test"), "nobody");
    EXPECT_EQ(asked(), 0u);
    const auto place = m_domains->named("far.example.com", m_forest.soon());
    EXPECT_EQ((*place)->forest, "example.com");
    EXPECT_EQ((*place)->kind, Place::Kind::Domain);
}

TEST_F(DomainsTest, OneThatIsTrustedIsAskedWithTicketsOnly) {
    EXPECT_EQ(named("other.test"), "nobody");
    start(Transport::StartTls);
    EXPECT_EQ(named("other.test"), "nobody");
    start(Transport::Gssapi);
    EXPECT_EQ(named("Other.Test"), "other.test");
    EXPECT_EQ(named("far.example.com"), "far.example.com");
}

TEST_F(DomainsTest, OneWithoutTrustsIsOneAllTheSame) {
    for (const char* dn : {"CN=other.test,CN=System,DC=example,DC=com", "CN=System,DC=example,DC=com"})
        m_forest.domain.remove(dn);
    start(Transport::Gssapi);
    EXPECT_EQ(named("far.example.com"), "far.example.com");
    EXPECT_EQ(named("other.test"), "nobody");
}

TEST_F(DomainsTest, WhereItHasNeverBeenAskedTheNamesOfOthersAreNotKnown) {
    m_forest.domain.answers = false;
    EXPECT_EQ(named("far.example.com"), kCannotBeAsked);
    m_forest.domain.answers = true;
    for (int exchange = 1; exchange <= 2; ++exchange) {
        for (int before = 1; before < exchange; ++before)
            m_forest.domain.next(Mishap::failOver(Mishap::When::Before));
        m_forest.domain.next(Mishap::fail(Mishap::When::Middle, Mishap::unreachable()));
        EXPECT_EQ(named("far.example.com"), kCannotBeAsked) << exchange;
        // What it is it has told by then.
        if (exchange == 1) named("example.com");
    }
    EXPECT_EQ(named("far.example.com"), "far.example.com");
}

TEST_F(DomainsTest, TrustsThatCannotBeReadAreAFailure) {
    start(Transport::Gssapi);
    m_forest.domain.next(Mishap::failOver(Mishap::When::Before));
    m_forest.domain.next(Mishap::failOver(Mishap::When::Before));
    m_forest.domain.next(Mishap::fail(Mishap::When::Before, {LDAP_BUSY, "busy"}));
    EXPECT_EQ(named("other.test"), kCannotBeAsked);
}

TEST_F(DomainsTest, TheyAreLearnedAnewEveryTenMinutesApartFromRequests) {
    EXPECT_EQ(named("far.example.com"), "far.example.com");
    m_forest.domain.remove("CN=FAR," + std::string(test::kPartitions));
    m_forest.addPartition(m_forest.network.addDomain("new.example.com", "example.com"), "NEW");
    asked();
    pass(kTenMinutes - milliseconds(1));
    m_forest.network.tendNow();
    EXPECT_EQ(named("new.example.com"), "nobody");
    EXPECT_EQ(asked(), 0u);
    pass(milliseconds(1));
    EXPECT_EQ(named("new.example.com"), "nobody");
    m_forest.network.tendNow();
    EXPECT_EQ(asked(), 1u);
    EXPECT_EQ(named("new.example.com"), "new.example.com");
    EXPECT_EQ(named("far.example.com"), "nobody");
    m_forest.network.tendNow();
    EXPECT_EQ(asked(), 0u);
}

TEST_F(DomainsTest, WhatItHasSaidBeforeCountsWhileItCannotBeAsked) {
    named("far.example.com");
    m_forest.domain.answers = false;
    pass(kTenMinutes);
    asked();
    m_forest.network.tendNow();
    EXPECT_EQ(named("far.example.com"), "far.example.com");
    EXPECT_EQ(asked(), 1u);
    pass(kMinute - milliseconds(1));
    m_forest.network.tendNow();
    EXPECT_EQ(asked(), 0u);
    pass(milliseconds(1));
    m_forest.network.tendNow();
    EXPECT_EQ(asked(), 1u);
}

TEST_F(DomainsTest, ThatItCannotBeAskedTheLogSays) {
    const test::CapturedLog log;
    m_forest.domain.answers = false;
    named("far.example.com");
    EXPECT_NE(
        log.text().find(
            "example.com cannot be asked whether there is a domain \"far.example.com\": nobody answers"),
        std::string::npos)
        << log.text();
    m_forest.domain.answers = true;
    named("far.example.com");
    m_forest.domain.answers = false;
    pass(kTenMinutes);
    m_forest.network.tendNow();
    EXPECT_NE(log.text().find("example.com cannot be asked which domains there are: nobody answers"),
              std::string::npos)
        << log.text();
}

TEST_F(DomainsTest, OfWhatIsLearnedTheLogSaysNothing) {
    const test::CapturedLog log;
    named("far.example.com");
    pass(kTenMinutes);
    m_forest.network.tendNow();
    EXPECT_EQ(log.text(), "");
}

TEST_F(DomainsTest, LearningThemAnewHasTwoSeconds) {
    named("far.example.com");
    m_forest.domain.answersAfter = milliseconds(60'000);
    pass(kTenMinutes);
    const Moment before = m_forest.network.clock().now();
    m_forest.network.tendNow();
    EXPECT_EQ(m_forest.network.clock().now() - before, milliseconds(2000));
}

TEST_F(DomainsTest, NobodyLearnsThemBeforeARequestDoes) {
    pass(kTenMinutes);
    m_forest.network.tendNow();
    EXPECT_EQ(asked(), 0u);
}

TEST_F(DomainsTest, NothingIsDoneAfterTheirEnd) {
    named("far.example.com");
    m_domains.reset();
    pass(kTenMinutes);
    asked();
    m_forest.network.tendNow();
    EXPECT_EQ(asked(), 0u);
}

TEST_F(DomainsTest, OneThatMustBeThereIsOrIsOutOfReach) {
    EXPECT_EQ(m_domains->existing("far.example.com", m_forest.soon())->name, "far.example.com");
    const auto none = m_domains->existing("evil.test", m_forest.soon());
    ASSERT_FALSE(none.has_value());
    EXPECT_EQ(none.error().code, VEX_UNAVAILABLE);
    EXPECT_EQ(none.error().errCode, LDAP_UNAVAILABLE);
    EXPECT_EQ(none.error().errText, "there is no such domain");
}

TEST_F(DomainsTest, OneThatMustBeThereCannotBeToldWhereNobodyAnswers) {
    m_forest.domain.answers = false;
    EXPECT_EQ(m_domains->existing("far.example.com", m_forest.soon()).error().errText,
              "the joined domain cannot be asked which domains there are");
}

TEST_F(DomainsTest, TheCatalogIsThatOfTheForest) {
    m_forest.domain.info.forest = "DC=Forest,DC=test";
    const auto catalog = m_domains->catalog(m_forest.soon());
    ASSERT_TRUE(catalog.has_value());
    EXPECT_EQ(catalog->name, "forest.test");
    EXPECT_EQ(catalog->kind, Place::Kind::Catalog);
}

TEST_F(DomainsTest, WithoutTheJoinedOneThereIsNoCatalog) {
    m_forest.domain.answers = false;
    EXPECT_EQ(m_domains->catalog(m_forest.soon()).error().errText, "the domain is out of reach");
}

}  // namespace
}  // namespace vexagent
