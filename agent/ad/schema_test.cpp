// SPDX-License-Identifier: Apache-2.0
// What is known of the forest's schema, and for how long.

#include "agent/ad/schema.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/ad/forest_testing.h"
#include "agent/directory/log_testing.h"

namespace vexagent {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr milliseconds kHour{3'600'000};
constexpr milliseconds kMinute{60'000};

class SchemaTest : public ::testing::Test {
  protected:
    AdSchema::Known get() {
        auto known = m_schema.get(m_forest.soon());
        EXPECT_TRUE(known.has_value());
        return known ? *known : nullptr;
    }
    std::size_t asked() { return m_forest.network.takeExchanges().size(); }
    void describe(std::vector<std::string> types) {
        m_forest.domain.add(std::string("CN=Aggregate,") + test::kSchema,
                            {{"attributeTypes", std::move(types)}});
    }
    void pass(milliseconds time) { m_forest.network.time.advance(time); }

    test::ExampleForest m_forest;
    AdSchema m_schema{m_forest.network, m_forest.place};
};

TEST_F(SchemaTest, KnowsNamesAndWhatIsConfidential) {
    const AdSchema::Known schema = get();
    EXPECT_EQ(schema->nameOf("1.2.3"), "uid");
    EXPECT_TRUE(schema->isSecret("SHOEsize"));
    EXPECT_FALSE(schema->isSecret("uid"));
    EXPECT_THAT(schema->names(), ElementsAre("uid"));
}

TEST_F(SchemaTest, IsAskedForOnceAnHour) {
    get();
    EXPECT_EQ(asked(), 3u);  // the domain, its attributes, what is confidential
    pass(kHour - milliseconds(1));
    get();
    EXPECT_EQ(asked(), 0u);
    pass(milliseconds(1));
    describe({"( 1.2.9 NAME 'other' )"});
    EXPECT_EQ(get()->nameOf("1.2.9"), "other");
    EXPECT_EQ(asked(), 2u);
    pass(kHour - milliseconds(1));
    get();
    EXPECT_EQ(asked(), 0u);
}

TEST_F(SchemaTest, StaysAsItWasWhereItCannotBeReadAnyMore) {
    const AdSchema::Known before = get();
    pass(kHour);
    m_forest.domain.answers = false;
    asked();
    EXPECT_EQ(get(), before);
    EXPECT_EQ(asked(), 1u);
    pass(kMinute - milliseconds(1));
    EXPECT_EQ(get(), before);
    EXPECT_EQ(asked(), 0u);
    pass(milliseconds(1));
    m_forest.domain.answers = true;
    EXPECT_NE(get(), before);
    EXPECT_EQ(asked(), 2u);
}

TEST_F(SchemaTest, StaysAsItWasWhereItIsNotToldAnyMore) {
    const AdSchema::Known before = get();
    pass(kHour);
    describe({});
    EXPECT_EQ(get(), before);
}

TEST_F(SchemaTest, OneReadsItAnewWhileTheOthersGoOnWithWhatThereIs) {
    const AdSchema::Known before = get();
    pass(kHour);
    bool met = false;
    m_forest.network.meanwhile = [&](const Exchange&) {
        if (std::exchange(met, true)) return;
        EXPECT_EQ(get(), before);
    };
    asked();
    EXPECT_NE(get(), before);
    EXPECT_EQ(asked(), 2u);
    EXPECT_TRUE(met);
}

TEST_F(SchemaTest, WithoutAControllerThatAnswersThereIsNone) {
    m_forest.domain.answers = false;
    auto known = m_schema.get(m_forest.soon());
    ASSERT_FALSE(known.has_value());
    EXPECT_TRUE(known.error().lost);
    m_forest.domain.answers = true;
    EXPECT_EQ(get()->nameOf("1.2.3"), "uid");  // at once
}

TEST_F(SchemaTest, AControllerThatTellsNoneLeavesTheNamesForAMinute) {
    m_forest.domain.remove(std::string("CN=Aggregate,") + test::kSchema);
    EXPECT_THAT(get()->names(), IsEmpty());
    EXPECT_FALSE(get()->isSecret("shoeSize"));
    asked();
    pass(kMinute - milliseconds(1));
    get();
    EXPECT_EQ(asked(), 0u);
    describe({"( 1.2.3 NAME 'uid' )"});
    pass(milliseconds(1));
    EXPECT_EQ(get()->nameOf("1.2.3"), "uid");
}

TEST_F(SchemaTest, ThatItIsNotToldTheLogSaysAndWhy) {
    const std::string told = "example.com does not tell its schema: secrets are known by name only";
    describe({});
    {
        const test::CapturedLog log;
        get();
        EXPECT_NE(log.text().find(told + "\n"), std::string::npos) << log.text();
    }
    m_forest.domain.remove(std::string("CN=Aggregate,") + test::kSchema);
    AdSchema another(m_forest.network, m_forest.place);
    const test::CapturedLog log;
    ASSERT_TRUE(another.get(m_forest.soon()).has_value());
    EXPECT_NE(log.text().find(told + ": no such object\n"), std::string::npos) << log.text();
}

TEST_F(SchemaTest, OneThatIsEmptyLeavesWhatIsConfidential) {
    m_forest.domain.add(std::string("CN=Aggregate,") + test::kSchema, {});
    EXPECT_THAT(get()->names(), IsEmpty());
    EXPECT_TRUE(get()->isSecret("shoeSize"));
}

TEST_F(SchemaTest, WhatIsConfidentialMustBeToldToo) {
    m_forest.domain.next(Mishap::failOver(Mishap::When::Before));
    m_forest.domain.next(Mishap::failOver(Mishap::When::Before));
    m_forest.domain.next(Mishap::fail(Mishap::When::Middle, Mishap::unreachable()));
    EXPECT_FALSE(m_schema.get(m_forest.soon()).has_value());
}

TEST_F(SchemaTest, ADescriptionThatCannotBeReadIsLeftOut) {
    describe({"", "no number NAME 'a'", "( 1.2.5 )", "( NAME 'b' 1.2.6 )", "( 1.2.7 NAME '' )",
              "( 1.2.8 NAME 'c' SYNTAX '9' )", "1.2.9 NAME 'd'"});
    const AdSchema::Known schema = get();
    EXPECT_THAT(schema->names(), ElementsAre("c", "d"));
    EXPECT_EQ(schema->nameOf("1.2.8"), "c");
    EXPECT_EQ(schema->nameOf("1.2.9"), "d");
}

}  // namespace
}  // namespace vexagent
