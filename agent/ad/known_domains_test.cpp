// SPDX-License-Identifier: Apache-2.0
// Which domains a domain names.

#include "agent/ad/known_domains.h"

#include <gtest/gtest.h>

namespace vexagent {
namespace {

Entry partition(const std::string& root, const std::string& shortName, const std::string& flags) {
    Entry entry{"CN=x,CN=Partitions,CN=Configuration,DC=example,DC=com", {{"nCName", {root}}}};
    if (!shortName.empty()) entry.attributes.push_back({"nETBIOSName", {shortName}});
    if (!flags.empty()) entry.attributes.push_back({"systemFlags", {flags}});
    return entry;
}

TEST(KnownDomains, AreThoseOfTheForest) {
    const struct {
        const char* what;
        Entry partition;
        bool counts;
    } cases[] = {
        {"a domain", partition("DC=far,DC=example,DC=com", "FAR", "3"), true},
        {"in other case", partition("dc=Far,dc=Example,dc=Com", "FAR", "3"), true},
        {"without flags", partition("DC=far,DC=example,DC=com", "FAR", ""), true},
        {"that is not to be deleted", partition("DC=far,DC=example,DC=com", "FAR", "-1073741821"), true},
        {"not in this forest", partition("DC=far,DC=example,DC=com", "FAR", "2"), false},
        {"no domain", partition("DC=far,DC=example,DC=com", "FAR", "5"), false},
        {"flags that cannot be read", partition("DC=far,DC=example,DC=com", "FAR", "3x"), false},
        {"no short name", partition("DC=far,DC=example,DC=com", "", "3"), false},
        {"a container", partition("CN=Configuration,DC=far,DC=example,DC=com", "FAR", "3"), false},
        {"no root", partition("", "FAR", "3"), false},
        {"no DNS name", partition("DC=far example com", "FAR", "3"), false},
        {"a port", partition("DC=far:389,DC=example,DC=com", "FAR", "3"), false},
    };
    for (const auto& [what, entry, counts] : cases) {
        KnownDomains domains;
        domains.addPartition(entry);
        EXPECT_EQ(domains.contains("FAR.example.com"), counts) << what;
        EXPECT_EQ(domains.size(), counts ? 1u : 0u) << what;
    }
}

Entry trust(const std::string& partner, const std::string& direction, const std::string& type) {
    return {"CN=x,CN=System,DC=example,DC=com",
            {{"trustPartner", {partner}}, {"trustDirection", {direction}}, {"trustType", {type}}}};
}

TEST(KnownDomains, AreThoseThatLetThisOnesAccountsIn) {
    const struct {
        const char* what;
        Entry trust;
        bool counts;
    } cases[] = {
        {"both ways", trust("Other.Test", "3", "2"), true},
        {"they trust us", trust("other.test", "1", "2"), true},
        {"we trust them", trust("other.test", "2", "2"), false},
        {"switched off", trust("other.test", "0", "2"), false},
        {"a realm without controllers", trust("other.test", "3", "3"), false},
        {"an old server", trust("other.test", "3", "1"), false},
        {"nothing that can be read", trust("other.test", "", ""), false},
        {"no direction", trust("other.test", "", "2"), false},
        {"a direction that cannot be read", trust("other.test", "x", "2"), false},
        {"no type", trust("other.test", "3", ""), false},
        {"no DNS name", trust("other/test", "3", "2"), false},
        {"a name with a NUL", trust(std::string("other.test\0", 11), "3", "2"), false},
    };
    for (const auto& [what, entry, counts] : cases) {
        KnownDomains domains;
        domains.addTrust(entry);
        EXPECT_EQ(domains.contains("other.test"), counts) << what;
        EXPECT_EQ(domains.size(), counts ? 1u : 0u) << what;
    }
}

TEST(KnownDomains, AreNotWhatIsLikeThem) {
    KnownDomains domains;
    domains.addPartition(partition("DC=far,DC=example,DC=com", "FAR", "3"));
    for (const std::string name :
         {"", "far", "example.com", "x.far.example.com", "far.example.com.", "far.example.comx", "FAR"})
        EXPECT_FALSE(domains.contains(name)) << name;
    EXPECT_FALSE(domains.contains(std::string("far.example.com\0", 16)));
}

TEST(KnownDomains, HaveNamesThatDnsCanBeAskedFor) {
    const auto counts = [](const std::string& name) {
        KnownDomains domains;
        domains.addTrust(trust(name, "3", "2"));
        return domains.contains(name);
    };
    for (const std::string name : {"az.AZ", "09.x-y_z", "\x80\xbf.\xff", "a"})
        EXPECT_TRUE(counts(name)) << name;
    for (const std::string name : {"a`b", "a{b", "a@b", "a[b", "a/b", "a:b", "a,b", "a b", "a\x7f", ""})
        EXPECT_FALSE(counts(name)) << name;
}

TEST(KnownDomains, HaveABound) {
    KnownDomains domains;
    for (std::size_t i = 0; i < KnownDomains::kMost + 10; ++i)
        domains.addPartition(partition("DC=d" + std::to_string(i) + ",DC=test", "D", "3"));
    EXPECT_EQ(domains.size(), KnownDomains::kMost);
}

}  // namespace
}  // namespace vexagent
