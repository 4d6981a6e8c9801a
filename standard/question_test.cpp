// SPDX-License-Identifier: Apache-2.0
#include "standard/question.h"

#include <gmock/gmock.h>
#include <ldap.h>

#include "standard/kinds_testing.h"
#include "translate/filter_builder_testing.h"

#include "tests/standin/slapd_standin.h"

namespace standard {
namespace {

constexpr char kAllText[] = "(|(objectClass=user)(objectClass=group))";

struct Case {
    const char* in;
    const char* out;
};

class Question : public testing::Test {
  protected:
    std::string of(const Filter* filter) {
        const auto answer = questionOf(filter, m_kinds, m_resolve);
        return answer ? *answer : "refused";
    }
    std::string of(std::string_view text) { return of(m_builder.parse(text)); }

    // What people are asked about, without their condition.
    std::string ofPeople(std::string_view text) {
        const Kinds people = {m_kinds.front()};
        const auto answer = questionOf(m_builder.parse(text), people, m_resolve);
        if (!answer) return "refused";
        if (answer->empty()) return "nothing";
        return *answer == "(objectClass=user)" ? "all" : part(*answer);
    }

    static std::string part(const std::string& text) {
        constexpr std::string_view kFront = "(&(objectClass=user)";
        EXPECT_TRUE(text.starts_with(kFront)) << text;
        return text.substr(kFront.size(), text.size() - kFront.size() - 1);
    }

    void expectOfPeople(std::initializer_list<Case> cases) {
        for (const Case& one : cases) EXPECT_EQ(ofPeople(one.in), one.out) << one.in;
    }

    Kinds m_kinds = peopleAndGroups();
    Resolver m_resolve = [](const Kind&, const ShownAttribute&, std::string_view) { return std::nullopt; };
    FilterBuilder m_builder;
};

TEST_F(Question, AsksForEachKindThatCanMatch) {
    EXPECT_EQ(
        of("(cn=ann)"),
        "(|(&(objectClass=user)(|(cn=ann)(displayName=ann)))(&(objectClass=group)(sAMAccountName=ann)))");
    EXPECT_EQ(of("(uid=ann)"), "(&(objectClass=user)(sAMAccountName=ann))");
    EXPECT_EQ(of("(gidNumber=5)"), "(&(objectClass=group)(gidNumber=5))");
    EXPECT_EQ(of("(objectClass=*)"), kAllText);
    EXPECT_EQ(of(static_cast<const Filter*>(nullptr)), kAllText);
}

TEST_F(Question, IsEmptyWhereNoKindCanMatch) {
    EXPECT_EQ(of("(mail=a)"), "");
    EXPECT_EQ(of("(&(uid=ann)(gidNumber=5))"), "");
    EXPECT_EQ(of("(objectClass=device)"), "");
    EXPECT_EQ(of("(!(objectClass=*))"), "");
    m_kinds.clear();
    EXPECT_EQ(of("(objectClass=*)"), "");
}

TEST_F(Question, DropsTheBranchesOfAnOrThatAKindCannotMatch) {
    EXPECT_EQ(of("(|(uid=a)(gidNumber=5)(mail=a))"),
              "(|(&(objectClass=user)(sAMAccountName=a))(&(objectClass=group)(gidNumber=5)))");
}

TEST_F(Question, BitsAreAskedForByTheAgentsOwnRules) {
    const auto withRule = [this](const char* name, std::string rule, const std::string& value) {
        Filter* filter = m_builder.extensible(name, value);
        filter->f_mr_rule_text = {rule.size(), rule.data()};
        const auto answer = questionOf(filter, {m_kinds.front()}, m_resolve);
        return answer ? part(*answer) : "refused";
    };
    const std::string all = "1.2.840.113556.1.4.803", any = "1.2.840.113556.1.4.804";
    EXPECT_EQ(withRule("uidNumber", all, "2"), "(uidNumber:1.2.840.113556.1.4.803:=2)");
    EXPECT_EQ(withRule("uidNumber", any, "2147483648"), "(uidNumber:1.2.840.113556.1.4.804:=2147483648)");
    EXPECT_EQ(withRule("uidNumber", "INTEGERBITORMATCH", "010"), "(uidNumber:1.2.840.113556.1.4.804:=10)");
    // Of those only slapd can judge.
    for (const char* value : {"0", "-1", "2147483649", "x", "", "1)(uid=*"})
        EXPECT_EQ(withRule("uidNumber", all, value), "(uidNumber=*)") << value;
    EXPECT_EQ(withRule("uidNumber", "2.5.13.14", "2"), "(uidNumber=*)");
    EXPECT_EQ(withRule("uid", all, "2"), "(sAMAccountName=*)") << "that is no number";
}

TEST_F(Question, OfAnUndefinedAssertionIsNothingAndSoOfItsNegation) {
    expectOfPeople({{"(?x=1)", "nothing"},
                    {"(!(?x=1))", "nothing"},
                    {"(?x=*)", "nothing"},
                    {"(!(?x=*))", "nothing"},
                    {"(#-1)", "nothing"},
                    {"(!(#-1))", "nothing"},
                    {"(|(?x=1)(uid=ann))", "(sAMAccountName=ann)"},
                    {"(&(?x=1)(uid=ann))", "nothing"},
                    {"(!(&(?x=1)(mail=a)))", "all"},        // FALSE whatever x is
                    {"(!(|(?x=1)(mail=a)))", "nothing"}});  // never FALSE
}

TEST_F(Question, TakesWhatSlapdHasComputedAlready) {
    expectOfPeople({{"(#6)", "all"},
                    {"(#5)", "nothing"},
                    {"(!(#6))", "nothing"},
                    {"(!(#5))", "all"},
                    {"(&(#6)(uid=ann))", "(sAMAccountName=ann)"}});
}

TEST_F(Question, OfAnAttributeThatAKindNeverHasIsFalse) {
    expectOfPeople({{"(gidNumber=5)", "nothing"},
                    {"(!(gidNumber=5))", "all"},
                    {"(gidNumber=*)", "nothing"},
                    {"(!(gidNumber=*))", "all"},
                    {"(gidNumber>=5)", "nothing"},
                    {"(gidNumber:=5)", "nothing"},
                    {"(!(gidNumber:=5))", "all"},
                    {"(cn;lang-en=ann)", "nothing"},
                    {"(!(cn;lang-en=ann))", "all"}});
}

// A value that is stored may be one that the entry does not show.
TEST_F(Question, OfANegationIsAllButOfWhatItCannotBeFalseFor) {
    expectOfPeople({{"(!(uid=ann))", "all"},
                    {"(!(uidNumber=*))", "all"},
                    {"(!(uidNumber=5))", "all"},
                    {"(&(mobile=5)(!(uid=ann)))", "(|(mobile=5)(otherMobile=5))"},
                    {"(!(objectClass=posixAccount))", "all"},
                    {"(!(objectClass=top))", "all"},
                    {"(!(objectClass=*))", "nothing"}});
}

TEST_F(Question, OfTwoNegationsIsThatOfNone) {
    expectOfPeople({{"(!(!(uid=ann)))", "(sAMAccountName=ann)"},
                    {"(!(|(!(uid=ann))(!(uidNumber=5))))", "(sAMAccountName=ann)(uidNumber=5)"},
                    {"(!(&(!(uid=ann))(!(uidNumber=5))))", "(|(sAMAccountName=ann)(uidNumber=5))"}});
}

TEST_F(Question, KnowsWhatAnEntryOfTheKindMayHaveAsClass) {
    expectOfPeople({{"(objectClass=TOP)", "all"},
                    {"(objectClass=inetOrgPerson)", "all"},
                    {"(objectClass=groupOfNames)", "nothing"},
                    {"(!(objectClass=groupOfNames))", "all"},
                    {"(objectClass~=groupOfNames)", "nothing"},
                    {"(objectClass=2.5.6.6)", "all"},  // slapd knows which that is
                    {"(objectClass=to*)", "nothing"},
                    {"(!(objectClass=to*))", "nothing"},
                    {"(objectClass>=top)", "nothing"},
                    {"(!(objectClass>=top))", "nothing"},
                    {"(objectClass:=top)", "all"},
                    {"(!(objectClass:=top))", "all"}});
}

TEST_F(Question, OfAClassAsksForWhatAnEntryNeedsForIt) {
    expectOfPeople({{"(objectClass=posixAccount)", "(sAMAccountName=*)(uidNumber=*)(unixHomeDirectory=*)"},
                    {"(objectClass=person)", "(|(cn=*)(displayName=*)(sn=*))(|(cn=*)(displayName=*))"}});
    EXPECT_EQ(of("(objectClass=posixGroup)"), "(&(objectClass=group)(gidNumber=*))");
}

// A group without members has the fallback's classes.
TEST_F(Question, OfAClassKnowsThoseOfTheFallback) {
    EXPECT_EQ(of("(objectClass=groupOfMembers)"), "(&(objectClass=group)(sAMAccountName=*))");
    m_kinds.back().fallback.push_back(makeClass("posixGroup", {"cn"}));
    EXPECT_EQ(of("(objectClass=posixGroup)"), "(&(objectClass=group)(|(gidNumber=*)(sAMAccountName=*)))");
}

TEST_F(Question, OfANeedWithoutASourceIsNotAsked) {
    EXPECT_EQ(of("(objectClass=groupOfNames)"), "(&(objectClass=group)(sAMAccountName=*))");
    m_kinds.front().classes.push_back(makeClass("inGroups", {"memberOf", "uid", "unknown"}));
    EXPECT_EQ(ofPeople("(objectClass=inGroups)"), "(sAMAccountName=*)");
}

TEST_F(Question, OfPresenceAsksForAnySource) {
    expectOfPeople({{"(uid=*)", "(sAMAccountName=*)"},
                    {"(mobile=*)", "(|(mobile=*)(otherMobile=*))"},
                    {"(memberOf=*)", "all"},
                    {"(entryUUID=*)", "all"},
                    {"(createTimestamp=*)", "all"}});
}

TEST_F(Question, OfATypeAsksForItsSubtypes) {
    EXPECT_EQ(ofPeople("(name=lee)"), "(|(cn=lee)(displayName=lee)(sn=lee))");
}

TEST_F(Question, OfAnAttributeThatNamesObjectsAsksForTheNameToo) {
    EXPECT_EQ(ofPeople("(cn=lee)"), "(|(cn=lee)(displayName=lee))");
    EXPECT_EQ(of("(&(gidNumber=*)(cn=lee))"), "(&(objectClass=group)(gidNumber=*)(sAMAccountName=lee))");
}

TEST_F(Question, OfASurnameAsksForTheNameThatStandsInForIt) {
    EXPECT_EQ(ofPeople("(sn=lee)"), "(|(cn=lee)(displayName=lee)(sn=lee))");
    m_kinds.front().sort = Sort::Other;
    EXPECT_EQ(ofPeople("(sn=lee)"), "(sn=lee)");
}

TEST_F(Question, OfTextIsInCaseAsTheRuleHasIt) {
    expectOfPeople({{"(uid=ANN)", "(sAMAccountName=ann)"},
                    {"(homeDirectory=/home/Ann)", "(unixHomeDirectory=/home/Ann)"},
                    {"(gecos=ann)", "(gecos=*)"},  // the agent would only find it in this case
                    {"(gecos=1*)", "(gecos=1*)"},
                    {"(gecos=a*)", "(gecos=*)"}});
}

TEST_F(Question, OfTextLeavesBlanksAndOtherLettersToTheCheck) {
    expectOfPeople({{"(uid=van dyke)", "(sAMAccountName=van*dyke)"},
                    {"(uid=m\xC3\xBCller)", "(sAMAccountName=m*ller)"},
                    {"(uid= )", "(sAMAccountName=*)"},
                    {"(uidNumber=5)", "(uidNumber=5)"}});
}

TEST_F(Question, OfSubstringsHasThePieces) {
    expectOfPeople({{"(homeDirectory=a*)", "(unixHomeDirectory=a*)"},
                    {"(homeDirectory=*b*)", "(unixHomeDirectory=*b*)"},
                    {"(homeDirectory=*c)", "(unixHomeDirectory=*c)"},
                    {"(homeDirectory=a*b*c)", "(unixHomeDirectory=a*b*c)"},
                    {"(homeDirectory=a *\xC3\xBC* c)", "(unixHomeDirectory=a*c)"},
                    {"(homeDirectory=* *)", "(unixHomeDirectory=*)"},
                    {"(uidNumber=1*)", "(uidNumber=*)"},
                    {"(memberOf=cn*)", "all"},
                    {"(cn=a*)", "(|(cn=a*)(displayName=a*))"},
                    {"(telephoneNumber=*12*)", "(telephoneNumber=*)"}});
}

TEST_F(Question, OfOtherRulesIsPresence) {
    expectOfPeople({{"(uid~=ann)", "(sAMAccountName=*)"},
                    {"(uid>=ann)", "(sAMAccountName=*)"},
                    {"(uidNumber<=9)", "(uidNumber=*)"},
                    {"(telephoneNumber=1 2)", "(telephoneNumber=*)"},
                    {"(createTimestamp=20260102030405Z)", "all"},
                    {"(uidNumber:=4)", "(uidNumber=*)"}});
}

TEST_F(Question, OfAnAttributeOrPartOfTheDnIsAll) {
    Filter* filter = m_builder.extensible("gidNumber", "5");
    filter->f_mr_dnattrs = 1;
    EXPECT_EQ(of(filter), kAllText);
    EXPECT_EQ(of(m_builder.list(LDAP_FILTER_NOT, {filter})), kAllText);
    EXPECT_EQ(of(m_builder.extensible({}, "5")), kAllText);
}

TEST_F(Question, OfAChoiceThatIsNotKnownIsAll) {
    expectOfPeople({{"(@0x77)", "all"}, {"(!(@0x77))", "all"}});
}

TEST_F(Question, EscapesEveryValue) {
    expectOfPeople({{"(uid=dc=x\\29\\28uid=ann)", "(sAMAccountName=dc=x\\29\\28uid=ann)"},
                    {"(uid=a\\2a\\00\\5c)", "(sAMAccountName=a\\2A\\00\\5C)"},
                    {"(uidNumber=\\29)", "(uidNumber=\\29)"},
                    {"(uid=\\2a*\\28)", "(sAMAccountName=\\2A*\\28)"}});
}

TEST_F(Question, OfAUuidIsTheGuidsBytes) {
    EXPECT_EQ(ofPeople("(entryUUID=00112233-4455-6677-8899-aabbccddeeff)"),
              "(objectGUID=\\33\\22\\11\\00\\55\\44\\77\\66\\88\\99\\AA\\BB\\CC\\DD\\EE\\FF)");
    EXPECT_EQ(ofPeople("(entryUUID=no)"), "nothing");
}

TEST_F(Question, OfDnsIsWhatTheResolverTells) {
    m_resolve = [](const Kind& kind, const ShownAttribute& attribute, std::string_view value) {
        return "(of=" + kind.objectClass + "-" + attribute.name + "-" + std::string(value) + ")";
    };
    expectOfPeople({{"(manager=cn=x)", "(of=user-manager-cn=x)"},
                    {"(memberOf=cn=x)", "(of=user-memberOf-cn=x)"},
                    {"(entryDN=cn=x)", "(of=user-entryDN-cn=x)"},
                    {"(!(manager=cn=x))", "all"},
                    {"(manager=*)", "(manager=*)"},
                    {"(uid=cn=x)", "(sAMAccountName=cn=x)"}});
    EXPECT_EQ(of("(memberUid=Ann)"), "(&(objectClass=group)(of=group-memberUid-Ann))");
}

TEST_F(Question, OfDnsThatNobodyCanTellIsPresenceOrAll) {
    expectOfPeople({{"(manager=cn=x)", "(manager=*)"}, {"(memberOf=cn=x)", "all"}});
    EXPECT_EQ(of("(memberUid=ann)"), "(objectClass=group)");
    EXPECT_EQ(of("(memberUid=a*)"), "(objectClass=group)");
    EXPECT_EQ(of("(memberUid=*)"), "(objectClass=group)");
}

TEST_F(Question, OfADnThatNoEntryHasIsNothing) {
    m_resolve = [](const Kind&, const ShownAttribute&, std::string_view) { return ""; };
    expectOfPeople({{"(manager=cn=x)", "nothing"}, {"(|(manager=cn=x)(uid=a))", "(sAMAccountName=a)"}});
}

TEST_F(Question, IsTheSameTextForEqualFilters) {
    const char* const kEqual[][2] = {
        {"(&(uid=a)(sn=b))", "(&(sn=b)(uid=a))"},
        {"(&(uid=a)(sn=b))", "(&(sn=B)(&(uid=A)(sn=b)))"},
        {"(|(uid=a)(sn=b)(uid=c))", "(|(|(uid=c)(sn=b))(uid=a)(uid=a))"},
        {"(uid=a)", "(&(uid=a))"},
        {"(uid=a)", "(|(&(uid=a))(mail=x))"},
        {"(uid=a)", "(&(objectClass=top)(uid=a))"},
        {"(sn=a  b)", "(sn=a b)"},
        {"(sn=*a**b*)", "(sn=*a*b*)"},
    };
    for (const auto& [a, b] : kEqual) EXPECT_EQ(of(a), of(b)) << a;
    EXPECT_NE(of("(homeDirectory=/A)"), of("(homeDirectory=/a)"));
    EXPECT_NE(of("(sn=*a*)"), of("(sn=a)"));
}

class ALargeFilter : public Question {
  protected:
    Filter* nested(std::size_t levels) {
        Filter* filter = m_builder.assertion(LDAP_FILTER_EQUALITY, "sn", "a");
        for (std::size_t level = 1; level < levels; ++level)
            filter = m_builder.list(LDAP_FILTER_NOT, {filter});
        return filter;
    }
    Filter* anyOf(std::size_t count, const char* name) {
        std::vector<Filter*> elements;
        for (std::size_t at = 0; at < count; ++at)
            elements.push_back(m_builder.assertion(LDAP_FILTER_EQUALITY, name, std::to_string(at)));
        return m_builder.list(LDAP_FILTER_OR, elements);
    }
    std::optional<QuestionRefusal> refusalOf(const Filter* filter) {
        const auto answer = questionOf(filter, m_kinds, m_resolve);
        return answer ? std::nullopt : std::optional(answer.error());
    }
};

TEST_F(ALargeFilter, IsRefusedWhereItIsTooDeep) {
    EXPECT_EQ(refusalOf(nested(kMostLevels)), std::nullopt);
    EXPECT_EQ(refusalOf(nested(kMostLevels + 1)), QuestionRefusal::TooDeep);
    EXPECT_EQ(refusalOf(nested(1'000'000)), QuestionRefusal::TooDeep);
}

TEST_F(ALargeFilter, IsRefusedWhereItHasTooManyAssertions) {
    EXPECT_EQ(refusalOf(anyOf(kMostAssertions, "uid")), std::nullopt);
    EXPECT_EQ(refusalOf(anyOf(kMostAssertions + 1, "uid")), QuestionRefusal::TooManyAssertions);
}

TEST_F(ALargeFilter, IsRefusedWhereItsValuesAreTooLong) {
    const std::string half(kMostFilterBytes / 2, 'a');
    const auto pieces = [&](const std::string& more) { return m_builder.substrings("sn", half, {more}, {}); };
    EXPECT_EQ(refusalOf(m_builder.assertion(LDAP_FILTER_EQUALITY, "sn", half)), std::nullopt);
    EXPECT_EQ(refusalOf(m_builder.assertion(LDAP_FILTER_EQUALITY, "sn", half + half)),
              QuestionRefusal::TooLong);
    EXPECT_EQ(refusalOf(m_builder.extensible("sn", half + half)), QuestionRefusal::TooLong);
    EXPECT_EQ(refusalOf(pieces(half)), QuestionRefusal::TooLong);
    EXPECT_EQ(refusalOf(pieces("b")), std::nullopt);
}

// slapd leaves the length of a piece that is not there as it finds it.
TEST_F(ALargeFilter, HasNoPiecesButThoseWithAText) {
    Filter* const substrings = m_builder.substrings("sn", {}, {"a"}, {});
    substrings->f_sub_initial = substrings->f_sub_final = {kMostFilterBytes, nullptr};
    EXPECT_EQ(refusalOf(substrings), std::nullopt);
}

TEST_F(ALargeFilter, IsAskedForByTheConditionsAloneWhereTheAgentWouldRefuseIt) {
    const std::string text = of(anyOf(1000, "uid"));
    EXPECT_TRUE(text.starts_with("(&(objectClass=user)(|(sAMAccountName=0)(sAMAccountName=1)"));
    EXPECT_EQ(of(anyOf(kMostAssertions, "uid")), "(objectClass=user)");
    EXPECT_EQ(of(anyOf(2000, "cn")), kAllText);
    const std::string value(600'000, 'a');
    EXPECT_EQ(of(m_builder.assertion(LDAP_FILTER_EQUALITY, "uid", value)), "(objectClass=user)");
    EXPECT_EQ(of(m_builder.assertion(LDAP_FILTER_EQUALITY, "uid", value.substr(0, 10'000))),
              "(&(objectClass=user)(sAMAccountName=" + value.substr(0, 10'000) + "))");
    EXPECT_EQ(of(m_builder.substrings("uid", {}, std::vector<std::string>(5000, "b"), {})),
              "(objectClass=user)");
}

}  // namespace
}  // namespace standard
