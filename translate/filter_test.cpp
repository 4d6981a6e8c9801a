// SPDX-License-Identifier: Apache-2.0
#include "translate/filter.h"

#include <gmock/gmock.h>
#include <ldap.h>
#include <regex.h>

#include <algorithm>
#include <random>

#include "tests/standin/captured.h"
#include "translate/filter_builder_testing.h"
#include "vorn/exception.h"

#include "tests/standin/slapd_standin.h"

namespace {

constexpr char kMap[] =
    "posixAccount = User\n"
    "posixAccount.uid = sAMAccountName\n"
    "posixAccount.CN = displayName\n"
    "posixAccount.dropped =\n"
    "posixAccount.homeDirectory = unixHomeDirectory\n"
    "posixGroup = Group\n"
    ".plain = renamed\n"
    "wild = a*(b)\n"
    "nothing =\n"
    "escaped\\\\2A = found\n";

struct Map : vorn::Properties {
    explicit Map(const std::string& text = kMap) { parse(text, "test"); }
};

struct Case {
    const char* in;
    const char* out;
};

class FilterText : public testing::Test {
  protected:
    std::string translate(std::string_view text, std::string_view type = "posixAccount") {
        return filter_as_string(type, m_builder.parse(text), &m_map);
    }
    std::string plain(std::string_view text) { return filter_as_string("", m_builder.parse(text), nullptr); }

    const Map m_map;
    FilterBuilder m_builder;
};

// slapd has folded what its schema compares without regard to case: the rest counts.
TEST_F(FilterText, TellsWhetherTheCaseOfItsValuesCounts) {
    const struct {
        const char* filter;
        bool counts;
    } cases[] = {
        {"(uid=ann)", false},
        {"(memberUid=ANN)", true},
        {"(memberUid=ann)", false},
        {"(homeDirectory=/home/Ann)", true},
        {"(?unknown=aB)", true},
        {"(objectGUID=\\01A\\ff)", true},
        {"(objectGUID=\\01a\\ff)", false},  // what escaping writes in upper case is no letter
        {"(uid>=Z)", true},
        {"(uid<=aZ)", true},
        {"(memberUid=*)", false},
        {"(memberUid=A*)", true},
        {"(memberUid=*A*)", true},
        {"(memberUid=*a*bC*)", true},
        {"(memberUid=*A)", true},
        {"(memberUid=a*b*c)", false},
        {"(manager=cn=Ann,dc=x)", true},
        {"(objectClass=posixAccount)", false},
        {"(OBJECTCLASS=POSIX*)", false},
        {"(objectCategory=Person)", false},
        {"(&(objectClass=posixGroup)(|(uid=ann)(!(memberUid=Ann))))", true},
        {"(&(objectClass=posixGroup)(memberUid=Ann)(uid=ann))", true},
        {"(dropped=ANN)", false},  // is not in the text
    };
    const Map map("posixAccount.dropped =\n");
    for (const auto& one : cases) {
        const TranslatedFilter translated =
            translate_filter("posixAccount", m_builder.parse(one.filter), &map);
        EXPECT_EQ(translated.caseCounts, one.counts) << one.filter;
        EXPECT_EQ(translated.text, filter_as_string("posixAccount", m_builder.parse(one.filter), &map));
    }
    EXPECT_TRUE(translate_filter("", m_builder.parse("(memberUid=A\\00)"), nullptr).caseCounts);
    EXPECT_FALSE(translate_filter("", m_builder.parse("(memberUid=a\\00B)"), nullptr).caseCounts);
    EXPECT_FALSE(translate_filter("", nullptr, nullptr).caseCounts);
}

TEST_F(FilterText, OfAMappedValueTheCaseOfWhatStandsInTheTextCounts) {
    const Map map("ann = Ann\nBOB = bob\n");
    EXPECT_TRUE(translate_filter("", m_builder.parse("(memberUid=ann)"), &map).caseCounts);
    EXPECT_FALSE(translate_filter("", m_builder.parse("(memberUid=BOB)"), &map).caseCounts);
}

TEST_F(FilterText, WithAMap) {
    const Case cases[] = {
        // names
        {"(uid=a)", "(sAMAccountName=a)"},
        {"(UID=a)", "(sAMAccountName=a)"},
        {"(cn=*)", "(displayName=*)"},
        {"(uid=*)", "(sAMAccountName=*)"},
        {"(mail=a)", "(mail=a)"},
        {"(homeDirectory=/home/Ann)", "(unixHomeDirectory=/home/Ann)"},
        {"(plain=a)", "(plain=a)"},
        // values
        {"(objectClass=posixAccount)", "(objectClass=User)"},
        {"(objectClass=POSIXACCOUNT)", "(objectClass=User)"},
        {"(objectClass=posixAccounts)", "(objectClass=posixAccounts)"},
        {"(uid=posixGroup)", "(sAMAccountName=Group)"},
        {"(uid>=posixgroup)", "(sAMAccountName=Group)"},
        {"(uid<=posixgroup)", "(sAMAccountName=Group)"},
        {"(uid=wild)", "(sAMAccountName=a*(b))"},
        {"(uid=nothing)", "(sAMAccountName=)"},
        {"(uid=escaped\\2A)", "(sAMAccountName=found)"},
        {"(uid=posixAccount.uid)", "(sAMAccountName=sAMAccountName)"},
        // pieces are never values of the map
        {"(uid=posixGroup*)", "(sAMAccountName=posixGroup*)"},
        {"(uid=*posixGroup*)", "(sAMAccountName=*posixGroup*)"},
        {"(uid=*posixGroup)", "(sAMAccountName=*posixGroup)"},
        {"(cn=ab*c*d)", "(displayName=ab*c*d)"},
        // what is dropped
        {"(dropped=b)", ""},
        {"(dropped=*)", ""},
        {"(dropped=a*)", ""},
        {"(dropped>=b)", ""},
        {"(!(dropped=b))", ""},
        {"(!(!(dropped=b)))", ""},
        {"(!(dropped=b)(uid=a))", "(!(sAMAccountName=a))"},
        {"(&(uid=a)(dropped=b))", "(sAMAccountName=a)"},
        {"(|(dropped=b)(uid=a))", "(sAMAccountName=a)"},
        {"(&(dropped=b)(dropped=c))", ""},
        {"(&(uid=a)(dropped=b)(mail=c))", "(&(sAMAccountName=a)(mail=c))"},
        {"(|(&(dropped=b)(uid=a))(mail=c))", "(|(sAMAccountName=a)(mail=c))"},
        {"(!(&(dropped=b)(uid=a)))", "(!(sAMAccountName=a))"},
        {"(&(!(dropped=b))(uid=a))", "(sAMAccountName=a)"},
        {"(&(|(dropped=a)(dropped=b))(mail=c)(uid=d))", "(&(mail=c)(sAMAccountName=d))"},
        // attributes that slapd does not know
        {"(?UID=Ann)", "(sAMAccountName=Ann)"},
        {"(?dropped=b)", ""},
        {"(?unknown=*)", "(unknown=*)"},
        {"(?unknown=a*b)", "(unknown=a*b)"},
        {"(&(?objectClass=posixAccount)(?x>=1))", "(&(objectClass=User)(x=1))"},
    };
    for (const Case& c : cases) EXPECT_EQ(translate(c.in), c.out) << c.in;
    EXPECT_EQ(translate("(plain=a)", ""), "(renamed=a)");
    EXPECT_EQ(translate("(uid=a)", "POSIXACCOUNT"), "(sAMAccountName=a)");
    EXPECT_EQ(translate("(uid=a)", "posixGroup"), "(uid=a)");
}

TEST_F(FilterText, WithoutAMapOnlyEscapes) {
    const Case cases[] = {
        {"(uid=a)", "(uid=a)"},
        {"(objectClass=posixAccount)", "(objectClass=posixAccount)"},
        {"(uidNumber>=1000)", "(uidNumber=1000)"},
        {"(uidNumber<=1000)", "(uidNumber=1000)"},
        {"(cn=)", "(cn=)"},
        {"(cn=*)", "(cn=*)"},
        // the operators
        {"(&(uid=a))", "(uid=a)"},
        {"(|(uid=a))", "(uid=a)"},
        {"(&(uid=a)(cn=b))", "(&(uid=a)(cn=b))"},
        {"(|(uid=a)(cn=b)(sn=c))", "(|(uid=a)(cn=b)(sn=c))"},
        {"(!(uid=a))", "(!(uid=a))"},
        {"(!(!(uid=a)))", "(!(!(uid=a)))"},
        {"(&(&(&(uid=a))))", "(uid=a)"},
        {"(&(|(a=1)(b=2))(!(|(c=3)(d=4))))", "(&(|(a=1)(b=2))(!(|(c=3)(d=4))))"},
        {"(!(&(uid=a)))", "(!(uid=a))"},
        {"(!(uid=a)(cn=b))", "(!(uid=a)(cn=b))"},
        {"(&)", ""},
        {"(|)", ""},
        // computed beforehand: an AND or OR without elements
        {"(#6)", ""},
        {"(#5)", ""},
        {"(&(#6)(uid=a))", "(uid=a)"},
        {"(|(#5)(uid=a)(cn=b))", "(|(uid=a)(cn=b))"},
        {"(!(#6))", ""},
        // substrings
        {"(cn=ab*c*d)", "(cn=ab*c*d)"},
        {"(cn=*x)", "(cn=*x)"},
        {"(cn=x*)", "(cn=x*)"},
        {"(cn=*x*)", "(cn=*x*)"},
        {"(cn=a*b*c*d*e)", "(cn=a*b*c*d*e)"},
        {"(cn=*b*c*)", "(cn=*b*c*)"},
        {"(cn=a\\2A*\\28*\\C3\\A9)", "(cn=a\\2A*\\28*\\C3\\A9)"},
        {"(cn=dc=\\28*x)", "(cn=dc=(*x)"},
        // escapes
        {"(cn=\\2A)", "(cn=\\2A)"},
        {"(cn=x\\28y\\29)", "(cn=x\\28y\\29)"},
        {"(cn=\\5c)", "(cn=\\5C)"},
        {"(cn=\\e9)", "(cn=\\E9)"},
        {"(cn=\\c3\\a9)", "(cn=\\C3\\A9)"},
        {"(cn=\\01\\1f\\7f\\80\\ff)", "(cn=\\01\\1F\\7F\\80\\FF)"},
        {"(cn=a b/#&|!~<>=,;\"+)", "(cn=a b/#&|!~<>=,;\"+)"},
        // distinguished names stay as they are
        {"(member=cn=a,dc=example)", "(member=cn=a,dc=example)"},
        {"(member=cn=\\2a\\28,DC \t =x\\c3\\a9)", "(member=cn=*(,DC \t =x\xC3\xA9)"},
        {"(member=dcdC=\\2a)", "(member=dcdC=*)"},
        {"(member=dc,dc =\\2a)", "(member=dc,dc =*)"},
        {"(member=dc\\0a=\\2a)", "(member=dc\\0A=\\2A)"},
        {"(member=dc\\2a)", "(member=dc\\2A)"},
        {"(member=d c=\\2a)", "(member=d c=\\2A)"},
        {"(member=\\2adc)", "(member=\\2Adc)"},
        {"(member=\\2adc )", "(member=\\2Adc )"},
        // text ends at its first NUL
        {"(cn=ab\\00cd)", "(cn=ab)"},
        {"(cn=\\00cd)", "(cn=)"},
        {"(cn=\\2a\\00dc=x)", "(cn=\\2A)"},
        {"(cn=a\\00b*c\\00d*e\\00f)", "(cn=a*c*e)"},
    };
    for (const Case& c : cases) EXPECT_EQ(plain(c.in), c.out) << c.in;
}

TEST_F(FilterText, AnItemWithoutNameOrValueIsDropped) {
    const auto text = [](const Filter* filter) { return filter_as_string("", filter, nullptr); };
    for (const ber_tag_t choice : {LDAP_FILTER_EQUALITY, LDAP_FILTER_GE, LDAP_FILTER_LE}) {
        EXPECT_EQ(text(m_builder.assertion(choice, {}, "a")), "");
        EXPECT_EQ(text(m_builder.assertion(choice, "uid", {})), "");
        EXPECT_EQ(text(m_builder.assertion(choice, "", "a")), "");
        EXPECT_EQ(text(m_builder.node(choice)), "");
    }
    EXPECT_EQ(text(m_builder.present({})), "");
    EXPECT_EQ(text(m_builder.present("")), "");
    EXPECT_EQ(text(m_builder.node(LDAP_FILTER_PRESENT)), "");
    EXPECT_EQ(text(m_builder.substrings({}, "a", {}, {})), "");
    EXPECT_EQ(text(m_builder.node(LDAP_FILTER_SUBSTRINGS)), "");
    EXPECT_EQ(text(nullptr), "");
    Filter* both = m_builder.list(
        LDAP_FILTER_AND, {m_builder.assertion(LDAP_FILTER_EQUALITY, {}, "a"), m_builder.parse("(uid=b)")});
    EXPECT_EQ(text(both), "(uid=b)");
}

TEST_F(FilterText, TheWholeValueIsReplacedAfterEscaping) {
    const Map map("cn\\=a,dc\\=b = short\n(x) = never\n");
    EXPECT_EQ(filter_as_string("", m_builder.parse("(member=cn=a,dc=b)"), &map), "(member=short)");
    EXPECT_EQ(filter_as_string("", m_builder.parse("(cn=\\28x\\29)"), &map), "(cn=\\28x\\29)");
}

TEST_F(FilterText, AnEmptyMapRenamesNothing) {
    const vorn::Properties empty;
    EXPECT_EQ(filter_as_string("posixAccount", m_builder.parse("(&(uid=a)(cn=\\2a))"), &empty),
              "(&(uid=a)(cn=\\2A))");
}

struct Refusal {
    const char* in;
    const char* message;
};

TEST_F(FilterText, AnUnknownChoiceIsLoggedAndThrown) {
    const Refusal cases[] = {
        {"(cn~=a)", "dirgate ERROR: Unknown choice in filter: 168\n"},
        {"(cn:=a)", "dirgate ERROR: Unknown choice in filter: 169\n"},
        {"(#-1)", "dirgate ERROR: Unknown choice in filter: 0\n"},
        {"(#80)", "dirgate ERROR: Unknown choice in filter: 0\n"},
        {"(?cn~=a)", "dirgate ERROR: Unknown choice in filter: 168\n"},
        {"(@0x80a7)", "dirgate ERROR: Unknown choice in filter: 167\n"},
        {"(@1)", "dirgate ERROR: Unknown choice in filter: 1\n"},
        {"(&(uid=a)(!(|(cn~=b)(uid=c))))", "dirgate ERROR: Unknown choice in filter: 168\n"},
    };
    for (const Refusal& c : cases) {
        const Filter* filter = m_builder.parse(c.in);
        const standin::CapturedStderr captured;
        try {
            filter_as_string("posixAccount", filter, &m_map);
            ADD_FAILURE() << c.in;
        } catch (const vorn::VORNException& error) {
            EXPECT_STREQ(error.what(), "") << c.in;
            EXPECT_EQ(error.code(), 0) << c.in;
        }
        EXPECT_EQ(captured.text(), c.message) << c.in;
    }
}

TEST_F(FilterText, ANameThatIsNoAttributeDescriptionIsLoggedAndThrown) {
    const std::string names[] = {"objectGUID=*)(uid",
                                 "userAccountControl:1.2.840.113556.1.4.803:", "uidNumber>", "uid\nforged",
                                 std::string("uid\0x", 5)};
    for (const std::string& name : names) {
        Filter* const items[] = {
            m_builder.present(name), m_builder.assertion(LDAP_FILTER_EQUALITY, name, "a"),
            m_builder.assertion(LDAP_FILTER_GE, name, "a"), m_builder.assertion(LDAP_FILTER_LE, name, "a"),
            m_builder.substrings(name, "a", {}, {})};
        for (Filter* item : items) {
            item->f_choice |= SLAPD_FILTER_UNDEFINED;
            Filter* const nested = m_builder.list(LDAP_FILTER_NOT, {item});
            const standin::CapturedStderr captured;
            for (const vorn::Properties* map : {static_cast<const vorn::Properties*>(nullptr),
                                                static_cast<const vorn::Properties*>(&m_map)}) {
                try {
                    filter_as_string("posixAccount", nested, map);
                    ADD_FAILURE() << name;
                } catch (const vorn::VORNException& error) {
                    EXPECT_STREQ(error.what(), "") << name;
                    EXPECT_EQ(error.code(), 0) << name;
                }
            }
            EXPECT_EQ(captured.text(),
                      "dirgate ERROR: Invalid attribute name in filter\n"
                      "dirgate ERROR: Invalid attribute name in filter\n");
        }
    }
}

TEST_F(FilterText, ElementsAreCountedByTheTextThatTheyGive) {
    struct {
        const char* in;
        const char* out;
        int count;
    } const cases[] = {
        {"(&(uid=a)(dropped=b)(cn=c))", "(sAMAccountName=a)(displayName=c)", 2},
        {"(|(dropped=b))", "", 0},
        {"(!(uid=a))", "(sAMAccountName=a)", 1},
        {"(&)", "", 0},
        {"(#6)", "", 0},
        {"(#5)", "", 0},
        {"(&(&(uid=a)(cn=b))(#6))", "(&(sAMAccountName=a)(displayName=b))", 1},
    };
    for (const auto& c : cases) {
        int count = -1;
        EXPECT_EQ(filter_list_as_string("posixAccount", m_builder.parse(c.in), &m_map, &count), c.out);
        EXPECT_EQ(count, c.count) << c.in;
    }
}

TEST(EscapeFilterValue, ReadsTheWholeText) {
    EXPECT_EQ(escape_filter_value(""), "");
    EXPECT_EQ(escape_filter_value("ann"), "ann");
    EXPECT_EQ(escape_filter_value("*"), "\\2A");
    EXPECT_EQ(escape_filter_value(std::string_view("a\0b", 3)), "a\\00b");
    EXPECT_EQ(escape_filter_value("Dc\t \t=*"), "Dc\t \t=*");
    EXPECT_EQ(escape_filter_value("DC\v=*"), "DC\\0B=\\2A");
    EXPECT_EQ(escape_filter_value("abc="), "abc=");
    EXPECT_EQ(escape_filter_value("d"), "d");
    EXPECT_EQ(escape_filter_value("*dc"), "\\2Adc");
    EXPECT_EQ(escape_filter_value("*dc "), "\\2Adc ");
    EXPECT_EQ(escape_filter_value(std::string_view("*dc=", 3)), "\\2Adc") << "nothing behind it";
}

struct TypeCase {
    const char* in;
    const char* name;  // null: none
    const char* value;
};

TEST_F(FilterText, ObjectType) {
    const TypeCase cases[] = {
        {"(objectClass=posixAccount)", "objectClass", "posixAccount"},
        {"(OBJECTCLASS=PosixAccount)", "OBJECTCLASS", "PosixAccount"},
        {"(objectCategory=person)", "objectCategory", "person"},
        {"(OBJECTcategory=person)", "OBJECTcategory", "person"},
        {"(?objectclass=unknown)", "objectclass", "unknown"},
        {"(&(uid=a)(objectClass=posixAccount))", "objectClass", "posixAccount"},
        {"(|(objectCategory=person)(objectClass=a))", "objectCategory", "person"},
        {"(!(objectClass=a))", "objectClass", "a"},
        {"(&(|(uid=a)(!(objectClass=b)))(objectClass=c))", "objectClass", "b"},
        {"(objectClass>=a)", "objectClass", "a"},
        {"(objectClass<=a)", "objectClass", "a"},
        {"(objectClass~=a)", "objectClass", "a"},
        {"(objectClass:=a)", "objectClass", "a"},
        {"(objectClass=)", "objectClass", ""},
        {"(objectClass=a\\00b)", "objectClass", "a"},
        // without a value of its own a node names no type, and the walk goes on
        {"(objectClass=*)", nullptr, nullptr},
        {"(objectClass=posix*)", nullptr, nullptr},
        {"(&(objectClass=*)(objectClass=posix*)(objectClass=posixGroup))", "objectClass", "posixGroup"},
        {"(uid=objectClass)", nullptr, nullptr},
        {"(objectClasses=a)", nullptr, nullptr},
        {"(:=a)", nullptr, nullptr},
        {"(#6)", nullptr, nullptr},
        {"(@1)", nullptr, nullptr},
        {"(&)", nullptr, nullptr},
    };
    for (const TypeCase& c : cases) {
        std::string name = "as it was";
        std::string value = "as it was";
        EXPECT_EQ(find_object_type(m_builder.parse(c.in), &name, &value), c.name != nullptr) << c.in;
        EXPECT_EQ(name, c.name == nullptr ? "as it was" : c.name) << c.in;
        EXPECT_EQ(value, c.name == nullptr ? "as it was" : c.value) << c.in;
    }
    std::string name;
    std::string value;
    EXPECT_FALSE(find_object_type(nullptr, &name, &value));
    EXPECT_FALSE(find_object_type(m_builder.assertion(LDAP_FILTER_EQUALITY, {}, "a"), &name, &value));
    EXPECT_FALSE(
        find_object_type(m_builder.assertion(LDAP_FILTER_EQUALITY, "objectClass", {}), &name, &value));
    EXPECT_FALSE(find_object_type(m_builder.node(LDAP_FILTER_EQUALITY), &name, &value));
    EXPECT_FALSE(find_object_type(m_builder.node(LDAP_FILTER_EXT), &name, &value));
}

bool libldapTakes(const std::string& text) {
    BerElement* ber = ber_alloc_t(LBER_USE_DER);
    const bool taken = ldap_pvt_put_filter(ber, text.c_str()) == 0;
    ber_free(ber, 1);
    return taken;
}

// A distinguished name, and a piece that is empty as text, may give text that is
// no filter.
bool isException(const std::string& value) {
    static const regex_t dn = [] {
        regex_t compiled;
        EXPECT_EQ(regcomp(&compiled, "[dD][cC][ \t]*=", REG_NOSUB), 0);
        return compiled;
    }();
    return value.starts_with('\0') || regexec(&dn, value.c_str(), 0, nullptr, 0) == 0;
}

TEST(GeneratedFilters, AreFiltersToLibldap) {
    const Map map("t.uid = sAMAccountName\nt.dropped =\n");
    std::mt19937 random(20);
    int judged = 0;
    int refused = 0;
    const standin::CapturedStderr silent;
    for (int round = 0; round < 20000; ++round) {
        std::vector<std::uint8_t> bytes(random() % 200);
        for (auto& byte : bytes) byte = static_cast<std::uint8_t>(random());
        FilterBuilder builder;
        const Filter* filter = builder.fromBytes(bytes);
        if (std::any_of(builder.values().begin(), builder.values().end(), isException)) continue;
        try {
            const std::string text = filter_as_string("t", filter, &map);
            EXPECT_EQ(text.find("dropped"), std::string::npos);
            if (text.empty()) continue;
            ++judged;
            ASSERT_TRUE(libldapTakes(text)) << text;
        } catch (const vorn::VORNException&) {
            ++refused;
        }
    }
    EXPECT_GT(judged, 1000);
    EXPECT_GT(refused, 100);
    EXPECT_FALSE(libldapTakes("(&(uid=a)"));
}

TEST(LargeFilters, ThousandsOfElementsAndDeepTrees) {
    FilterBuilder builder;
    std::vector<Filter*> elements;
    std::string expected = "(|";
    for (int i = 0; i < 20000; ++i) {
        elements.push_back(builder.assertion(LDAP_FILTER_EQUALITY, "uid", std::to_string(i)));
        expected += "(uid=" + std::to_string(i) + ")";
    }
    EXPECT_EQ(filter_as_string("", builder.list(LDAP_FILTER_OR, elements), nullptr), expected + ")");

    Filter* deep = builder.parse("(uid=a)");
    for (int i = 0; i < 1000; ++i) deep = builder.list(LDAP_FILTER_NOT, {deep});
    const std::string text = filter_as_string("", deep, nullptr);
    EXPECT_EQ(text.size(), std::string("(uid=a)").size() + 3000);
}

}  // namespace
