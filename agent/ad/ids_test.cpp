// SPDX-License-Identifier: Apache-2.0
// Ids made from SIDs.

#include "agent/ad/ids.h"

#include <gtest/gtest.h>

#include "agent/directory/identifiers.h"

namespace vexagent {
namespace {

std::string sid(const std::string& text) {
    return sidBytes(text).value_or("");
}

constexpr char kDomainSid[] = "S-1-5-21-1185669892-1359130568-1241246553";

IdOptions idsOn() {
    IdOptions options;
    options.fromSid = true;
    return options;
}

// These numbers are on people's disks: they never change.
TEST(Ids, AreTheSameForEver) {
    const Ids ids(idsOn(), sid(kDomainSid));
    ASSERT_TRUE(ids.first().has_value());
    EXPECT_EQ(*ids.first(), 1'340'400'000u);
    EXPECT_EQ(ids.idOf(sid(std::string(kDomainSid) + "-1104")), 1'340'401'104u);
    EXPECT_EQ(Ids(idsOn(), sid("S-1-5-21-1-2-3")).first(), 580'000'000u);
}

TEST(Ids, LeadBackToTheirSid) {
    const Ids ids(idsOn(), sid(kDomainSid));
    EXPECT_EQ(sidText(ids.sidOf(*ids.first() + 513)), std::string(kDomainSid) + "-513");
    EXPECT_EQ(ids.sidOf(*ids.first() - 1), "");
    EXPECT_EQ(ids.sidOf(*ids.first() + 200'000), "");
    EXPECT_NE(ids.sidOf(*ids.first() + 199'999), "");
}

TEST(Ids, OnlyAccountsOfTheDomainWithinTheSliceHaveOne) {
    const Ids ids(idsOn(), sid(kDomainSid));
    EXPECT_EQ(ids.idOf(sid("S-1-5-21-9-9-9-1104")), std::nullopt);
    EXPECT_EQ(ids.idOf(sid("S-1-5-32-544")), std::nullopt);
    EXPECT_EQ(ids.idOf(sid(std::string(kDomainSid) + "-200000")), std::nullopt);
    EXPECT_EQ(ids.idOf(sid(std::string(kDomainSid) + "-199999")), *ids.first() + 199'999);
    EXPECT_EQ(ids.idOf(""), std::nullopt);
}

TEST(Ids, AreOffUnlessWanted) {
    const Ids ids(IdOptions{}, sid(kDomainSid));
    EXPECT_FALSE(ids.enabled());
    EXPECT_EQ(ids.idOf(sid(std::string(kDomainSid) + "-1104")), std::nullopt);
    EXPECT_FALSE(Ids(idsOn(), "").enabled());
}

TEST(Ids, AHomeHoldsTheLoginName) {
    IdOptions options = idsOn();
    EXPECT_EQ(Ids(options, "").homeOf("ann"), "/home/ann");
    options.home = "/%u/home/%u";
    EXPECT_EQ(Ids(options, "").homeOf("%u"), "/%u/home/%u");
    options.home = "%u%u";
    EXPECT_EQ(Ids(options, "").homeOf("ann"), "annann");
}

TEST(Ids, TheLastSliceEndsWithTheLargestId) {
    IdOptions options = idsOn();
    options.slices = 1;
    options.first = UINT32_MAX - options.sliceSize;
    const Ids last(options, sid(kDomainSid));
    ASSERT_TRUE(last.enabled());
    EXPECT_EQ(*last.first(), options.first);
    EXPECT_EQ(last.idOf(sid(std::string(kDomainSid) + "-199999")), UINT32_MAX - 1);
    ++options.first;
    const Ids beyond(options, sid(kDomainSid));
    EXPECT_FALSE(beyond.enabled());
    EXPECT_EQ(beyond.idOf(sid(std::string(kDomainSid) + "-1104")), std::nullopt);
    EXPECT_EQ(beyond.sidOf(options.first), "");
}

TEST(Ids, TheFirstIdIsThatOfNumberZero) {
    const Ids ids(idsOn(), sid(kDomainSid));
    EXPECT_EQ(sidText(ids.sidOf(*ids.first())), std::string(kDomainSid) + "-0");
    EXPECT_EQ(ids.idOf(sid(std::string(kDomainSid) + "-0")), ids.first());
}

TEST(Ids, ASidIsTheDomainsWithTheNumberBehind) {
    const Ids ids(idsOn(), sid(kDomainSid));
    EXPECT_EQ(sidText(ids.sidWith(0xfedcba98)), std::string(kDomainSid) + "-4275878552");
    EXPECT_EQ(Ids(idsOn(), "").sidWith(513), "");
    EXPECT_EQ(Ids(idsOn(), "1234567").sidWith(513), "");
    EXPECT_EQ(sidText(Ids(idsOn(), std::string("\1\0\0\0\0\0\0\5", 8)).sidWith(32)), "S-1-5-32");
}

TEST(Ids, WithoutThemNoIdLeadsAnywhere) {
    const std::uint32_t id = *Ids(idsOn(), sid(kDomainSid)).first() + 513;
    EXPECT_EQ(Ids(IdOptions{}, sid(kDomainSid)).sidOf(id), "");
    EXPECT_EQ(Ids(idsOn(), "").sidOf(id), "");
}

TEST(Ids, HostsAreShownThoseFromTheLowestOn) {
    IdOptions options;
    options.least = 1000;
    EXPECT_TRUE(Ids(options, "").allowed().allows("1000"));
    EXPECT_FALSE(Ids(options, "").allowed().allows("999"));
}

}  // namespace
}  // namespace vexagent
