// SPDX-License-Identifier: Apache-2.0
// A domain as a directory.

#include "agent/ad/ad.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/ad/forest_testing.h"
#include "vorn/temporary_folder_testing.h"

namespace vexagent {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class AdDirectoryTest : public ::testing::Test {
  protected:
    AdDirectoryTest() {
        auto network = std::make_unique<FakeNetwork>();
        m_network = network.get();
        m_domain = &network->addDomain("example.com");
        m_domain->add(m_ann, {{"objectClass", {"user"}}, {"cn", {"ann"}}, {"sAMAccountName", {"ann"}}});
        m_domain->add("CN=Schema,CN=Configuration,DC=example,DC=com", {});
        m_domain->add("CN=Aggregate,CN=Schema,CN=Configuration,DC=example,DC=com",
                      {{"attributeTypes", {"( 1.2.3 NAME 'cn' )"}}});
        m_domain->setPassword(m_ann, "ann", "secret");
        AdOptions options = test::exampleOptions();
        options.authCache.enabled = true;
        options.authCache.file = m_folder.file("logins");
        m_directory = std::make_unique<AdDirectory>(options, std::move(network));
    }

    vorn::test::TemporaryFolder m_folder;
    const std::string m_ann = "CN=ann,DC=example,DC=com";
    FakeNetwork* m_network = nullptr;
    FakeDomain* m_domain = nullptr;
    std::unique_ptr<AdDirectory> m_directory;
};

TEST_F(AdDirectoryTest, AnswersWhatIsAskedOfADirectory) {
    Query query;
    query.filter = "(cn=ann)";
    Batch first;
    std::unique_ptr<Cursor> rest;
    ASSERT_TRUE(m_directory->search(query, first, rest).ok());
    EXPECT_EQ(first.objects.size(), 1u);
    EXPECT_EQ(rest, nullptr);
    Object object;
    ASSERT_TRUE(m_directory->fetch("", m_ann, {}, object).ok());
    EXPECT_EQ(object[0].values[0], m_ann);
    Object same;
    ASSERT_TRUE(m_directory->lookup(guidText(FakeDomain::guidOf(m_ann)), {}, same).ok());
    EXPECT_EQ(same.size(), object.size());
    std::vector<std::string> names;
    ASSERT_TRUE(m_directory->supportedAttributes(names).ok());
    EXPECT_THAT(names, ElementsAre("cn"));
    EXPECT_TRUE(m_directory->authenticate(m_ann, "secret", {}).accepted());
    EXPECT_EQ(m_directory->authenticate(m_ann, "wrong", {}).code(), VEX_WRONG_PASSWORD);
    EXPECT_TRUE(m_directory->isQuick(LDAP_SCOPE_SUBTREE, "(cn=ann)"));
    EXPECT_FALSE(m_directory->isQuick(LDAP_SCOPE_SUBTREE, "(uid=ann)"));
}

TEST_F(AdDirectoryTest, LooksUpAheadUntilNoMoreIsTaken) {
    const std::string ben = "CN=ben,DC=example,DC=com";
    m_domain->add(ben, {{"objectClass", {"user"}}, {"cn", {"ben"}}, {"sAMAccountName", {"ben"}}});
    const std::vector<std::string> guids = {guidText(FakeDomain::guidOf(m_ann)),
                                            guidText(FakeDomain::guidOf(ben))};
    std::vector<std::string> taken;
    const auto takeUpTo = [&](std::size_t most) {
        taken.clear();
        m_directory->lookupAhead(guids, {}, [&](Object&& object) {
            taken.push_back(object[0].values[0]);
            return taken.size() < most;
        });
    };
    takeUpTo(3);
    EXPECT_THAT(taken, ElementsAre(m_ann, ben));
    takeUpTo(1);
    EXPECT_THAT(taken, ElementsAre(m_ann));
}

TEST_F(AdDirectoryTest, AFailureLeavesNothingOfAnAnswer) {
    m_domain->answers = false;
    Batch first;
    std::unique_ptr<Cursor> rest;
    EXPECT_EQ(m_directory->search({}, first, rest).code, VEX_UNAVAILABLE);
    EXPECT_THAT(first.objects, IsEmpty());
    EXPECT_EQ(rest, nullptr);
    Object object;
    EXPECT_EQ(m_directory->fetch("", m_ann, {}, object).code, VEX_UNAVAILABLE);
    EXPECT_EQ(m_directory->lookup(guidText(FakeDomain::guidOf(m_ann)), {}, object).code, VEX_UNAVAILABLE);
    EXPECT_THAT(object, IsEmpty());
    std::vector<std::string> names;
    EXPECT_EQ(m_directory->supportedAttributes(names).code, VEX_UNAVAILABLE);
}

TEST_F(AdDirectoryTest, ASearchGivesTheRestAndForgetsTheOneBefore) {
    for (int i = 0; i < 3; ++i)
        m_domain->add("CN=p" + std::to_string(i) + ",DC=example,DC=com",
                      {{"objectClass", {"user"}}, {"cn", {"p"}}});
    Query query;
    query.filter = "(cn=p)";
    query.firstBatch = 1;
    Batch first;
    std::unique_ptr<Cursor> rest;
    ASSERT_TRUE(m_directory->search(query, first, rest).ok());
    ASSERT_NE(rest, nullptr);
    EXPECT_EQ(first.total, 1u);
    m_domain->answers = false;
    EXPECT_FALSE(m_directory->search(query, first, rest).ok());
    EXPECT_EQ(rest, nullptr);
    EXPECT_EQ(m_network->openSearches(), 0u);
}

TEST_F(AdDirectoryTest, IsWellWhileSomebodyAnswers) {
    EXPECT_TRUE(m_directory->health().ok());
    m_domain->next(Mishap::fail(Mishap::When::Before, {LDAP_BUSY, "busy"}));
    const Result busy = m_directory->health();
    EXPECT_EQ(busy.code, VEX_UNAVAILABLE);
    EXPECT_EQ(busy.errCode, LDAP_BUSY);
}

TEST_F(AdDirectoryTest, IsToldWithinThreeSecondsWhetherItIsWell) {
    m_domain->answersAfter = milliseconds(60'000);
    const Moment before = m_network->clock().now();
    EXPECT_FALSE(m_directory->health().ok());
    EXPECT_EQ(m_network->clock().now() - before, milliseconds(3000));
}

TEST_F(AdDirectoryTest, IsWellWhileSomebodyCouldLogInWithoutTheDomain) {
    m_directory->authenticate(m_ann, "secret", {});
    m_domain->answers = false;
    EXPECT_TRUE(m_directory->health().ok());
}

}  // namespace
}  // namespace vexagent
