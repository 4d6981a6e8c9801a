// SPDX-License-Identifier: Apache-2.0
#include "standard/onlookers.h"

#include "standard/asked_part.h"
#include "standard/directory_testing.h"

namespace standard {
namespace {

using testing::ElementsAre;

constexpr char kAny[] = "*";

berval textOf(const char* text) {
    return {std::strlen(text), const_cast<char*>(text)};
}

class OnlookersTest : public DirectoryTest {
  protected:
    OnlookersTest() {
        m_who.a_dn.a_style = m_who.a_realdn.a_style = ACL_STYLE_REGEX;
        m_who.a_dn_pat = textOf(kAny);
        m_rule.acl_dn_style = ACL_STYLE_REGEX;
        m_rule.acl_access = &m_who;
        m_asked.op()->o_bd->be_acl = &m_rule;
    }

    bool alike() { return treatEntriesAlike(m_asked.op()); }
    bool inside() { return lookInside(m_asked.op()); }

    // By what is in the entry, or by its name alone.
    void expectToJudgeByContent() {
        EXPECT_TRUE(inside());
        EXPECT_FALSE(alike());
    }
    void expectToJudgeByName() {
        EXPECT_FALSE(inside());
        EXPECT_FALSE(alike());
    }

    Asked m_asked = ask();
    Access m_who{};
    AccessControl m_rule{};
};

TEST_F(OnlookersTest, OfRulesForEverybodyThereAreNone) {
    EXPECT_TRUE(alike());
    EXPECT_FALSE(inside());
    m_asked.op()->o_bd->be_acl = nullptr;
    EXPECT_TRUE(alike());
}

TEST_F(OnlookersTest, ARuleForSomeAttributesTreatsEntriesAlike) {
    AttributeName names[2] = {};
    names[0].an_name = textOf("cn");
    m_rule.acl_attrs = names;
    EXPECT_TRUE(alike());
}

TEST_F(OnlookersTest, ARuleForEntriesOfAFilterLooksInside) {
    Filter filter{};
    m_rule.acl_filter = &filter;
    expectToJudgeByContent();
}

TEST_F(OnlookersTest, ARuleForWhomAnEntryNamesLooksInside) {
    m_who.a_dn_at = known("member");
    expectToJudgeByContent();
    m_who.a_dn_at = nullptr;
    m_who.a_realdn_at = known("member");
    expectToJudgeByContent();
    m_who.a_realdn_at = nullptr;
    m_who.a_set_pat = textOf("this/member & user");
    expectToJudgeByContent();
    m_who.a_set_pat = {};
    m_who.a_group_pat = textOf("cn=staff");
    expectToJudgeByContent();
    m_who.a_group_pat = {};
    slap_dynacl_t other{};
    m_who.a_dynacl = &other;
    expectToJudgeByContent();
}

TEST_F(OnlookersTest, ARuleForSomeEntriesJudgesByName) {
    m_rule.acl_dn_pat = textOf("ou=p");
    expectToJudgeByName();
    m_rule.acl_dn_pat = {};
    m_rule.acl_dn_style = ACL_STYLE_SUBTREE;
    expectToJudgeByName();
}

TEST_F(OnlookersTest, ARuleForAValueIsAboutSomeEntriesOnly) {
    m_rule.acl_attrval = textOf("ann");
    expectToJudgeByName();
}

TEST_F(OnlookersTest, ARuleForTheEntryItselfJudgesByName) {
    m_who.a_dn.a_style = ACL_STYLE_SELF;
    expectToJudgeByName();
    m_who.a_dn.a_style = ACL_STYLE_REGEX;
    m_who.a_dn_self = 1;
    expectToJudgeByName();
    m_who.a_dn_self = 0;
    m_who.a_dn.a_expand = 1;
    expectToJudgeByName();
    m_who.a_dn.a_expand = 0;
    m_who.a_dn_pat = textOf("cn=$1");
    expectToJudgeByName();
    m_who.a_dn_pat = textOf(kAny);
    m_who.a_domain_expand = 1;
    expectToJudgeByName();
}

TEST_F(OnlookersTest, EachRuleAndEachOfItsClientsCounts) {
    Access second{};
    second.a_dn.a_style = ACL_STYLE_SELF;
    m_who.a_next = &second;
    EXPECT_FALSE(alike());
    m_who.a_next = nullptr;
    AccessControl next{};
    next.acl_dn_style = ACL_STYLE_BASE;
    m_rule.acl_next = &next;
    EXPECT_FALSE(alike());
}

TEST_F(OnlookersTest, RulesOfTheWholeServerCount) {
    m_asked.op()->o_bd->be_acl = nullptr;
    Filter filter{};
    m_rule.acl_filter = &filter;
    m_frontend.be_acl = &m_rule;
    expectToJudgeByContent();
}

TEST_F(OnlookersTest, AnOverlayMayDoAnything) {
    slap_callback overlay{};
    m_asked.op()->o_callback = &overlay;
    expectToJudgeByContent();
}

class SearchRightsTest : public DirectoryTest {
  protected:
    bool allowed(const std::string& filter) {
        Asked asked = ask();
        asked.where(filter);
        return allowSearch(asked.op(), nullptr, asked.op()->ors_filter);
    }
};

TEST_F(SearchRightsTest, AreThoseToEachAttribute) {
    EXPECT_TRUE(allowed("(&(uid=ann)(!(cn=a*)))"));
    standin::hideFromSearch({"cn"});
    EXPECT_FALSE(allowed("(&(uid=ann)(!(cn=a*)))"));
    EXPECT_TRUE(allowed("(|(uid=ann)(mail=*))"));
}

TEST_F(SearchRightsTest, AreNeededForNothingThatIsNoAttribute) {
    EXPECT_TRUE(allowed("(|(colour=red)(#5))"));
}

TEST_F(SearchRightsTest, AreNotToldForSeveralAttributesAtOnce) {
    AttributeType* const name = known("cn")->ad_type;
    AttributeType* subtypes[] = {known("sn")->ad_type, nullptr};
    name->sat_subtypes = subtypes;
    EXPECT_FALSE(allowed("(cn=ann)"));
    name->sat_subtypes = nullptr;
    standin::knowAttribute("userCertificate", true);
    EXPECT_FALSE(allowed("(userCertificate=*)"));
    FilterBuilder builder;
    EXPECT_FALSE(allowSearch(ask().op(), nullptr, builder.extensible("", "ann")));
}

class AskedPartTest : public DirectoryTest {
  protected:
    static SharedEntry entry(const std::string& text) {
        std::string copy = text;
        return {str2entry(copy.data()), entry_free};
    }

    // What of the second entry is handed on.
    std::string secondOf(const std::vector<std::string>& names, const std::string& text) {
        Asked asked = ask();
        AskedPart part(asked.wanting(names).op());
        const SharedEntry one = entry(text);
        part.of(one.get());
        return standin::entryText(part.of(one.get()));
    }
};

constexpr char kAnn[] = "dn: cn=ann\nuid: ann\ncn: Ann\ncn: Anna\nmail: a@x\n";

TEST_F(AskedPartTest, HasWhatTheClientNamed) {
    EXPECT_EQ(secondOf({"CN", "mail"}, kAnn), "dn: cn=ann\ncn: Ann\ncn: Anna\nmail: a@x\n");
    EXPECT_EQ(secondOf({"1.1"}, kAnn), "dn: cn=ann\n");
    EXPECT_EQ(secondOf({"colour"}, kAnn), "dn: cn=ann\n");
}

TEST_F(AskedPartTest, OfAllIsAll) {
    for (const char* all : {"*", "+"}) EXPECT_EQ(secondOf({"cn", all}, kAnn), kAnn);
    Asked asked = ask();
    AskedPart part(asked.op());
    const SharedEntry one = entry(kAnn);
    part.of(one.get());
    EXPECT_EQ(part.of(one.get()), one.get());
}

TEST_F(AskedPartTest, IsAllWhereOperationalAttributesAreMade) {
    known("hasSubordinates")->ad_type->sat_usage = LDAP_SCHEMA_DIRECTORY_OPERATION;
    EXPECT_EQ(secondOf({"cn", "hasSubordinates"}, kAnn), kAnn);
}

TEST_F(AskedPartTest, IsAllWhereSomebodyLooksInside) {
    Asked asked = ask();
    slap_callback overlay{};
    asked.wanting({"cn"}).op()->o_callback = &overlay;
    AskedPart part(asked.op());
    const SharedEntry one = entry(kAnn);
    part.of(one.get());
    EXPECT_EQ(part.of(one.get()), one.get());
}

TEST_F(AskedPartTest, IsFoundInEntriesThatDiffer) {
    Asked asked = ask();
    AskedPart part(asked.wanting({"cn", "mail"}).op());
    std::vector<std::string> parts;
    for (const char* text :
         {kAnn, kAnn, "dn: cn=bob\nmail: b@x\nuid: bob\n", "dn: cn=cyd\nsn: C\ncn: Cyd\n", kAnn})
        parts.push_back(standin::entryText(part.of(entry(text).get())));
    EXPECT_THAT(parts,
                ElementsAre(kAnn, "dn: cn=ann\ncn: Ann\ncn: Anna\nmail: a@x\n", "dn: cn=bob\nmail: b@x\n",
                            "dn: cn=cyd\ncn: Cyd\n", "dn: cn=ann\ncn: Ann\ncn: Anna\nmail: a@x\n"));
}

TEST_F(AskedPartTest, OfTheOnlyEntryOfASearchCostsNothing) {
    Asked asked = ask();
    AskedPart part(asked.wanting({"cn"}).op());
    const SharedEntry one = entry(kAnn);
    EXPECT_EQ(part.of(one.get()), one.get());
}

}  // namespace
}  // namespace standard
