// SPDX-License-Identifier: Apache-2.0
#include "standard/membership.h"

#include "standard/directory_testing.h"

namespace standard {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Optional;

constexpr char kSuffix[] = "DC=example,DC=com";
constexpr char kAnn[] = "CN=ann,OU=P,DC=example,DC=com";

class MembershipTest : public DirectoryTest {
  protected:
    static AgentObject object(const standin::Object& from) {
        AgentObject made;
        for (const standin::Attribute& one : from)
            for (const standin::Value& value : one.values) made.add(one.name, value.bytes);
        return made;
    }
    std::vector<std::string> members(const std::vector<standin::Value>& names) {
        std::vector<std::string> dns;
        m_code = memberDns(kSuffix, object(group("staff", names)), &dns);
        return dns;
    }
    std::vector<std::string> groups(const std::string& name) {
        std::vector<std::string> dns;
        m_code = groupDns(kSuffix, object(person(name)), &dns);
        return dns;
    }
    // What an assertion is in the agent's terms, for a kind and its attribute.
    static std::optional<std::string> resolved(const char* type, Sort sort, const std::string& value) {
        for (const Kind& kind : usedKinds()) {
            if (kind.sort != sort) continue;
            for (const ShownAttribute& one : kind.attributes)
                if (one.name == type) return membershipResolver()(kind, one, value);
        }
        ADD_FAILURE() << "no " << type;
        return std::nullopt;
    }

    vexCode m_code = VEX_OK;
};

TEST_F(MembershipTest, ShowsMembersInTheGroupsOrder) {
    has({person("ann"), person("bob")});
    EXPECT_THAT(members({"bob", "ann"}), ElementsAre("CN=bob,OU=P,DC=example,DC=com", kAnn));
    EXPECT_THAT(questions(), ElementsAre("(&(&(objectCategory=Person)(objectClass=user))"
                                         "(|(sAMAccountName=ann)(sAMAccountName=bob))) DC=example,DC=com 2"));
}

TEST_F(MembershipTest, ShowsNobodyWhoHasNoEntry) {
    standin::Object hidden = person("bob");
    hidden.push_back({"_nssEntryInvalid", {"1"}});
    has({person("ann"), hidden, group("cyd")});
    EXPECT_THAT(members({"ann", "bob", "cyd", "dan"}), ElementsAre(kAnn));
}

TEST_F(MembershipTest, OfALargeGroupIsAskedForInParts) {
    std::vector<standin::Value> names;
    for (int i = 0; i < 130; ++i) names.push_back("u" + std::to_string(i));
    has({person("u0"), person("u64"), person("u129")});
    EXPECT_THAT(members(names), testing::SizeIs(3));
    EXPECT_THAT(questions(), testing::SizeIs(3));
}

TEST_F(MembershipTest, OfNobodyAsksNobody) {
    EXPECT_THAT(members({}), IsEmpty());
    EXPECT_THAT(questions(), IsEmpty());
}

TEST_F(MembershipTest, ShowsTheGroupsThatShowThePerson) {
    has({group("staff", {"ann", "bob"}), group("others", {"ANN"}), person("cyd")});
    EXPECT_THAT(groups("ann"), ElementsAre("cn=staff,OU=G,DC=example,DC=com"));
    EXPECT_THAT(questions(), ElementsAre("(&(objectClass=group)(memberUid=ann)) DC=example,DC=com 2"));
}

TEST_F(MembershipTest, ThatCannotBeToldIsAFailure) {
    for (const int end : {VEX_BROKEN_SESSION, VEX_NO_MEMORY}) {
        standin::reset();
        has({person("ann")}, end);
        members({"ann"});
        EXPECT_EQ(m_code, end);
        groups("ann");
        EXPECT_EQ(m_code, end);
        EXPECT_EQ(resolved("member", Sort::Group, "cn=ann,ou=p,dc=example,dc=com"), std::nullopt);
        EXPECT_EQ(resolved("memberOf", Sort::Person, "cn=staff,ou=g,dc=example,dc=com"), std::nullopt);
    }
}

TEST_F(MembershipTest, OfANameIsAskedForByIt) {
    EXPECT_THAT(resolved("memberUid", Sort::Group, "a(b"), Optional(std::string("(memberUid=a\\28b)")));
}

TEST_F(MembershipTest, OfAPersonIsAskedForByTheName) {
    hasAt("ou=p,dc=example,dc=com", {person("ann"), person("bob")});
    EXPECT_THAT(resolved("member", Sort::Group, "cn=ann,ou=p,dc=example,dc=com"),
                Optional(std::string("(memberUid=ann)")));
    EXPECT_THAT(resolved("member", Sort::Group, "cn=eve,ou=p,dc=example,dc=com"), Optional(std::string()));
}

TEST_F(MembershipTest, InAGroupIsAskedForByItsMembers) {
    hasAt("ou=g,dc=example,dc=com", {group("staff", {"bob", "ann"}), group("empty")});
    EXPECT_THAT(resolved("memberOf", Sort::Person, "cn=staff,ou=g,dc=example,dc=com"),
                Optional(std::string("(|(sAMAccountName=ann)(sAMAccountName=bob))")));
    EXPECT_THAT(resolved("memberOf", Sort::Person, "cn=empty,ou=g,dc=example,dc=com"),
                Optional(std::string()));
    EXPECT_THAT(resolved("memberOf", Sort::Person, "cn=none,ou=g,dc=example,dc=com"),
                Optional(std::string()));
}

TEST_F(MembershipTest, InALargeGroupIsNotAskedForByItsMembers) {
    std::vector<standin::Value> names;
    for (int i = 0; i < 513; ++i) names.push_back("u" + std::to_string(i));
    hasAt("ou=g,dc=example,dc=com", {group("staff", names)});
    EXPECT_EQ(resolved("memberOf", Sort::Person, "cn=staff,ou=g,dc=example,dc=com"), std::nullopt);
}

}  // namespace
}  // namespace standard
