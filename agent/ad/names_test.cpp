// SPDX-License-Identifier: Apache-2.0
// Which object a name means.

#include "agent/ad/names.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/ad/forest_testing.h"

namespace vexagent {
namespace {

using test::kPeople;
using test::kRoot;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class NamesTest : public ::testing::Test {
  protected:
    NamesTest() {
        m_ann = m_forest.addPerson("ann", {{"cn", {"Ann"}}, {"uid", {"annie"}}});
        m_ben = m_forest.addPerson("ben");
    }
    NameFinder finder() {
        return {
            m_forest.network, m_forest.place, m_forest.options, {"cn", "sAMAccountName"}, m_forest.soon()};
    }
    static std::vector<std::string> dns(const std::vector<Entry>& entries) {
        std::vector<std::string> all;
        for (const Entry& entry : entries) all.push_back(entry.dn);
        return all;
    }
    // "real: DN DN rewritten: DN", or the failure.
    static std::string told(const NameFinder::Found& found) {
        if (!found) return found.error().text;
        std::string text;
        for (const std::string& dn : dns(found->real)) text += dn + " ";
        for (const std::string& dn : dns(found->rewritten)) text += "rewritten: " + dn + " ";
        return text.empty() ? "nobody" : text.substr(0, text.size() - 1);
    }
    std::string byDn(const std::string& dn) {
        return told(finder().byDn(dn, NameFinder::Rewritten::IfNotReal));
    }
    std::string byName(const std::string& name) { return told(finder().byLoginName(name)); }
    // How many searches each of the exchanges since the last call was.
    std::vector<std::size_t> cost() {
        std::vector<std::size_t> searches;
        for (const Exchange& exchange : m_forest.network.takeExchanges())
            searches.push_back(exchange.searches.size());
        return searches;
    }

    test::ExampleForest m_forest;
    std::string m_ann, m_ben;
    const std::string m_annie = std::string("cn=annie,") + kPeople;
};

TEST_F(NamesTest, ADnThatExistsIsAskedForOnce) {
    EXPECT_EQ(byDn(m_ann), m_ann);
    EXPECT_THAT(cost(), ElementsAre(1u));
}

TEST_F(NamesTest, ARewrittenDnMeansWhoeverHasTheValueBesideIt) {
    EXPECT_EQ(byDn(m_annie), "rewritten: " + m_ann);
    EXPECT_THAT(cost(), ElementsAre(1u, 2u));  // itself; the two login attributes at once
    EXPECT_EQ(byDn(std::string("CN=annie,") + kRoot), "nobody");
    EXPECT_EQ(byDn(std::string("CN=nobody,") + kPeople), "nobody");
}

TEST_F(NamesTest, OnlyWhatIsDirectlyBesideItCounts) {
    m_forest.domain.add("OU=Deep," + std::string(kPeople), {{"objectClass", {"organizationalUnit"}}});
    m_forest.domain.add("CN=x,OU=Deep," + std::string(kPeople),
                        {{"objectClass", {"user"}}, {"uid", {"deep"}}});
    EXPECT_EQ(byDn(std::string("CN=deep,") + kPeople), "nobody");
}

TEST_F(NamesTest, NoOtherFirstPartIsARewrittenName) {
    for (const std::string dn : {"ou=annie", "cn=annie+uid=annie", "cn="}) {
        EXPECT_EQ(byDn(dn + "," + kPeople), "nobody") << dn;
        EXPECT_THAT(cost(), ElementsAre(1u)) << dn;
    }
}

TEST_F(NamesTest, WhatIsNoDnIsNotAskedFor) {
    for (const std::string& dn : {std::string("ann"), std::string(""), m_ann + std::string("\0x", 2)})
        EXPECT_EQ(byDn(dn), "nobody") << dn;
    EXPECT_THAT(cost(), IsEmpty());
}

TEST_F(NamesTest, ADnOfAnotherDirectoryIsNobodys) {
    EXPECT_EQ(byDn("CN=ann,DC=other,DC=test"), "nobody");
    EXPECT_THAT(cost(), ElementsAre(1u, 2u));
}

TEST_F(NamesTest, AFailureIsNotTakenForNobody) {
    m_forest.domain.next(Mishap::fail(Mishap::When::Before, {LDAP_BUSY, "busy"}));
    EXPECT_EQ(byDn(m_ann), "busy");
    m_forest.domain.next(Mishap::failOver(Mishap::When::Before));
    m_forest.domain.next(Mishap::fail(Mishap::When::Middle, Mishap::unreachable()));
    EXPECT_EQ(byDn(m_annie), "nobody answers");
}

TEST_F(NamesTest, WhatAnotherControllerSendsAgainCountsOnce) {
    m_forest.domain.next(Mishap::failOver(Mishap::When::After));
    EXPECT_EQ(byName(m_ann), m_ann);
    m_forest.domain.next(Mishap::failOver(Mishap::When::Middle));
    EXPECT_EQ(byName(m_annie), "rewritten: " + m_ann);
}

TEST_F(NamesTest, ForALogInBothMeaningsOfADnAreLookedForAtOnce) {
    EXPECT_EQ(byName(m_ann), m_ann);
    EXPECT_THAT(cost(), ElementsAre(3u));
    EXPECT_EQ(byName(m_annie), "rewritten: " + m_ann);
    EXPECT_THAT(cost(), ElementsAre(3u));
    EXPECT_EQ(byName(std::string("CN=nobody,") + kPeople), "nobody");
    EXPECT_THAT(cost(), ElementsAre(3u));
}

TEST_F(NamesTest, OnesOwnDnAndAnothersRewrittenOneAreTwo) {
    const std::string cleo = m_forest.addPerson("cleo", {{"uid", {"ben"}}});
    EXPECT_EQ(byName(m_ben), m_ben + " rewritten: " + cleo);
    EXPECT_EQ(byName(std::string("cN=BEN,") + kPeople), m_ben + " rewritten: " + cleo);
}

TEST_F(NamesTest, OneWhomSeveralAttributesNameIsOne) {
    m_forest.addPerson("dora", {{"uid", {"dd"}}, {"sAMAccountName", {"dd"}}});
    const auto found = finder().byLoginName(std::string("cn=dd,") + kPeople);
    ASSERT_TRUE(found.has_value());
    EXPECT_EQ(found->count(), 1u);
}

TEST_F(NamesTest, APrincipalIsAUserPrincipalNameOrElseAnAccountOfTheRealm) {
    const std::string eve = m_forest.addPerson("eve", {{"userPrincipalName", {"evelyn@other.test"}}});
    EXPECT_EQ(byName("ann@example.com"), m_ann);
    EXPECT_THAT(cost(), ElementsAre(1u, 1u));
    EXPECT_EQ(byName("eve@EXAMPLE.com"), eve);
    EXPECT_THAT(cost(), ElementsAre(1u, 1u));
    EXPECT_EQ(byName("evelyn@other.test"), eve);
    EXPECT_EQ(byName("eve@other.test"), "nobody");
    EXPECT_THAT(cost(), ElementsAre(1u, 1u));  // of another realm the account is not asked for
    EXPECT_EQ(byName("@example.com"), "nobody");
    EXPECT_THAT(cost(), ElementsAre(1u));
}

TEST_F(NamesTest, TheLastAtBeginsTheRealm) {
    const std::string odd = m_forest.addPerson("odd", {{"sAMAccountName", {"o@d"}}});
    EXPECT_EQ(byName("o@d@example.com"), odd);
}

TEST_F(NamesTest, APrincipalNameComesBeforeAnothersAccountName) {
    const std::string fay = m_forest.addPerson("fay", {{"userPrincipalName", {"ben@example.com"}}});
    m_forest.addPerson("ben", {{"userPrincipalName", {"x@example.com"}}});
    EXPECT_EQ(byName("ben@example.com"), fay);
}

TEST_F(NamesTest, TheDomainOfAnAccountIsCalledByAnyOfItsNames) {
    m_forest.domain.info.netbios = "SHORT";
    for (const char* name : {"example.com\\ann", "EXAMPLE\\ann", "Short\\ANN"})
        EXPECT_EQ(byName(name), m_ann) << name;
    for (const char* name : {"OTHER\\ann", "\\ann", "EXAMPLE\\", "EXAMPLE.org\\ann", "SHORT\\"})
        EXPECT_EQ(byName(name), "nobody") << name;
}

TEST_F(NamesTest, ItsShortNameIsAskedForOnlyWhereTheOthersDoNotFit) {
    byName("EXAMPLE\\ann");
    EXPECT_EQ(m_forest.network.count(Exchange::Kind::Describe), 0u);
    m_forest.domain.next(Mishap::fail(Mishap::When::Before, Mishap::unreachable()));
    EXPECT_EQ(byName("OTHER\\ann"), "nobody answers");
    EXPECT_EQ(m_forest.network.count(Exchange::Kind::Describe), 1u);
}

TEST_F(NamesTest, APlainNameIsNobodysAndAsksNobody) {
    for (const std::string& name :
         {std::string("ann"), std::string(""), std::string("ann@example.com\0", 16)})
        EXPECT_EQ(byName(name), "nobody") << name;
    EXPECT_THAT(cost(), IsEmpty());
}

TEST_F(NamesTest, AFailureOfEitherQuestionIsOne) {
    m_forest.domain.next(Mishap::fail(Mishap::When::Before, {LDAP_BUSY, "first"}));
    EXPECT_EQ(byName("ann@example.com"), "first");
    m_forest.domain.next(Mishap::failOver(Mishap::When::Before));
    m_forest.domain.next(Mishap::fail(Mishap::When::Before, {LDAP_BUSY, "second"}));
    EXPECT_EQ(byName("ann@example.com"), "second");
    m_forest.domain.next(Mishap::fail(Mishap::When::Before, {LDAP_BUSY, "third"}));
    EXPECT_EQ(byName("EXAMPLE\\ann"), "third");
}

TEST_F(NamesTest, WhatIsWantedOfAnEntryComesWithIt) {
    const auto found = finder().byLoginName("ann@example.com");
    ASSERT_TRUE(found.has_value());
    ASSERT_EQ(found->count(), 1u);
    EXPECT_EQ(found->real[0].first("sAMAccountName"), "ann");
    EXPECT_EQ(found->real[0].find("uidNumber"), nullptr);
}

TEST(NamedEntriesTest, TheOneIsTheOnlyOne) {
    NamedEntries none, real{{{"CN=a", {}}}, {}}, rewritten{{}, {{"CN=b", {}}}},
        both{{{"CN=a", {}}}, {{"CN=b", {}}}};
    NamedEntries two{{{"CN=a", {}}, {"CN=c", {}}}, {}};
    EXPECT_EQ(none.only(), nullptr);
    ASSERT_NE(real.only(), nullptr);
    EXPECT_EQ(real.only()->dn, "CN=a");
    ASSERT_NE(rewritten.only(), nullptr);
    EXPECT_EQ(rewritten.only()->dn, "CN=b");
    EXPECT_EQ(both.only(), nullptr);
    EXPECT_EQ(two.only(), nullptr);
    EXPECT_EQ(both.count(), 2u);
}

}  // namespace
}  // namespace vexagent
