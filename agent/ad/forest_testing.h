// SPDX-License-Identifier: Apache-2.0
// The forest example.com in memory, with people and groups as a test wants them.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "agent/ad/ids.h"
#include "agent/ad/network_testing.h"
#include "agent/ad/options.h"
#include "agent/directory/identifiers.h"

namespace vexagent::test {

inline constexpr char kRoot[] = "DC=example,DC=com";
inline constexpr char kPeople[] = "OU=People,DC=example,DC=com";
inline constexpr char kGroups[] = "OU=Groups,DC=example,DC=com";
inline constexpr char kPartitions[] = "CN=Partitions,CN=Configuration,DC=example,DC=com";
inline constexpr char kSchema[] = "CN=Schema,CN=Configuration,DC=example,DC=com";

// Settings of a host that is joined to example.com; a log-in by DN looks at uid and
// sAMAccountName.
inline AdOptions exampleOptions() {
    AdOptions options;
    options.domain = "example.com";
    options.loginAttributes = {"uid", "sAMAccountName"};
    options.transport = Transport::Ldaps;
    return options;
}

// Knows its partitions, its schema, and two folders for people and groups.
class ExampleForest {
  public:
    ExampleForest() : domain(network.addDomain("example.com")) {
        for (const char* dn : {kPeople, kGroups, kPartitions, kSchema})
            domain.add(dn, {{"objectClass", {"top"}}});
        domain.add(std::string("CN=Aggregate,") + kSchema,
                   {{"attributeTypes", {"( 1.2.3 NAME 'uid' SYNTAX '1.2' )", "( 1.2.4 NAME 'shoeSize' )"}}});
        domain.add(std::string("CN=Shoe-Size,") + kSchema, {{"objectClass", {"attributeSchema"}},
                                                            {"searchFlags", {"128"}},
                                                            {"lDAPDisplayName", {"shoeSize"}}});
        addPartition(domain, "EXAMPLE");
    }

    FakeNetwork network;
    FakeDomain& domain;
    AdOptions options = exampleOptions();
    const Place place{"example.com"};

    Deadline soon() const { return {network.clock(), milliseconds(8000)}; }
    std::string sid(std::uint32_t rid) const { return accountSid(domain.info.sid, rid); }

    // Another domain of the forest.
    FakeDomain& addDomain(const std::string& name, const std::string& shortName) {
        FakeDomain& other = network.addDomain(name, "example.com");
        ++domain.info.domains;
        addPartition(other, shortName);
        return other;
    }
    void addPartition(const FakeDomain& other, const std::string& shortName) {
        domain.add("CN=" + shortName + "," + kPartitions, {{"objectClass", {"crossRef"}},
                                                           {"nCName", {other.info.root}},
                                                           {"nETBIOSName", {shortName}},
                                                           {"systemFlags", {"3"}}});
    }
    void addTrust(const std::string& partner) {
        domain.add("CN=System," + std::string(kRoot), {{"objectClass", {"container"}}});
        domain.add("CN=" + partner + ",CN=System," + kRoot, {{"objectClass", {"trustedDomain"}},
                                                             {"trustPartner", {partner}},
                                                             {"trustDirection", {"3"}},
                                                             {"trustType", {"2"}}});
    }

    // Somebody with numbers and a password, the name, whose primary group has the RID 513.
    // The DN.
    std::string addPerson(const std::string& name, std::vector<Attribute> more = {}) {
        std::vector<Attribute> all = {{"objectClass", {"top", "person", "user"}},
                                      {"cn", {name}},
                                      {"sAMAccountName", {name}},
                                      {"userPrincipalName", {name + "@example.com"}},
                                      {"uidNumber", {std::to_string(1000 + m_rid)}},
                                      {"gidNumber", {"513"}},
                                      {"unixHomeDirectory", {"/home/" + name}},
                                      {"primaryGroupID", {"513"}}};
        std::string dn = add("CN=" + name + "," + kPeople, std::move(all), std::move(more));
        domain.setPassword(dn, name, name);
        return dn;
    }
    std::string addGroup(const std::string& name, std::vector<Attribute> more = {}) {
        return add(
            "CN=" + name + "," + kGroups,
            {{"objectClass", {"top", "group"}}, {"cn", {name}}, {"gidNumber", {std::to_string(m_rid)}}},
            std::move(more));
    }
    // On both sides, as a controller keeps it.
    void join(const std::string& group, const std::string& member) {
        change(group, "member", member);
        change(member, "memberOf", group);
    }
    // One value more.
    void change(const std::string& dn, const std::string& name, const std::string& value) {
        std::vector<Attribute>& attributes = m_known[dn];
        for (Attribute& attribute : attributes)
            if (attribute.name == name) {
                attribute.values.push_back(value);
                return domain.add(dn, attributes);
            }
        attributes.push_back({name, {value}});
        domain.add(dn, attributes);
    }

  private:
    // What is more takes the place of what has the same name.
    std::string add(const std::string& dn, std::vector<Attribute> all, std::vector<Attribute> more) {
        all.push_back({"objectSid", {sid(m_rid++)}});
        for (Attribute& attribute : more) {
            std::erase_if(all, [&](const Attribute& other) { return other.name == attribute.name; });
            if (!attribute.values.empty()) all.push_back(std::move(attribute));
        }
        m_known[dn] = all;
        domain.add(dn, all);
        return dn;
    }

    std::uint32_t m_rid = 1100;
    std::map<std::string, std::vector<Attribute>> m_known;
};

}  // namespace vexagent::test
