// SPDX-License-Identifier: Apache-2.0
#include "agent/directory/schema.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vexagent {
namespace {

using ::testing::ElementsAre;

Schema someSchema() {
    Schema schema;
    schema.addAttribute("1.2.840.113556.1.4.1910", "unixUserPassword");
    schema.addAttribute("2.5.4.3", "cn");
    schema.addAttribute("1.2.3.4", "shoeSize");
    schema.addConfidential("shoeSize");
    return schema;
}

TEST(Schema, ResolvesNumbersInAllTheirSpellings) {
    const Schema schema = someSchema();
    for (const char* name : {"2.5.4.3", "OID.2.5.4.3", "oid.2.5.4.3"})
        EXPECT_EQ(schema.nameOf(name), "cn") << name;
    EXPECT_EQ(schema.nameOf("2.5.4.3;binary"), "cn;binary");
    EXPECT_EQ(schema.nameOf("cn"), "cn");
    for (const char* name : {"2.5.4.4", "OID.2.5.4", "02.5.4.3", "2.5.4.3 ", "", "c n", "uid)(cn"})
        EXPECT_EQ(schema.nameOf(name), std::nullopt) << name;
    EXPECT_EQ(Schema().nameOf("2.5.4.3"), std::nullopt);
}

TEST(Schema, KnowsSecretsByTheirMarkAndByTheirNames) {
    const Schema schema = someSchema();
    for (const char* name : {"shoeSize", "SHOESIZE", "shoesize;binary", "unixUserPassword", "2.5.4.3"})
        EXPECT_TRUE(schema.isSecret(name)) << name;
    EXPECT_FALSE(schema.isSecret("cn"));
    EXPECT_THAT(schema.names(), ElementsAre("cn"));
}

TEST(Schema, AViewAsksForNoSecretAndForNoNumber) {
    const Schema schema = someSchema();
    const auto resolved = [&](std::vector<std::string> names) {
        return schema.resolve({false, std::move(names)}).attributes;
    };
    EXPECT_THAT(resolved({"2.5.4.3", "uid", "_dn", "*"}), ElementsAre("cn", "uid", "_dn", "*"));
    EXPECT_THAT(
        resolved({"1.2.840.113556.1.4.1910", "OID.1.2.840.113556.1.4.1910;binary", "ShoeSize", "uid"}),
        ElementsAre("uid"));
    EXPECT_THAT(resolved({"1.2.3.4"}), ElementsAre("1.1"));
    EXPECT_TRUE(resolved({}).empty());
}

TEST(Schema, TakesSecretsOutOfAnEntry) {
    std::vector<Attribute> attributes = {
        {"cn", {"a"}}, {"shoeSize", {"44"}}, {"1.2.840.113556.1.4.1910", {"x"}}, {"userPKCS12", {"x"}}};
    someSchema().removeSecrets(attributes);
    ASSERT_EQ(attributes.size(), 1u);
    EXPECT_EQ(attributes[0].name, "cn");
}

}  // namespace
}  // namespace vexagent
