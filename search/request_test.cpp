// SPDX-License-Identifier: Apache-2.0
#include "search/request.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

#include "backend/base/settings.h"
#include "search/fixture_testing.h"
#include "tests/standin/captured.h"
#include "translate/filter_builder_testing.h"
#include "vorn/settings.h"
#include "vorn/temporary_folder_testing.h"

#include "tests/standin/slapd_standin.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class RequestTest : public searchtest::Fixture {
  protected:
    // Makes the host's settings hold this text.
    void useSettings(const std::string& text) {
        setenv("ZANTHE_CONF", m_folder.write("zanthe.conf", text).c_str(), 1);
        vorn::Props(true, true);
    }

    const vorn::test::TemporaryFolder m_folder;
    SearchRequest m_request;
};

// ------------------------------------------------------------ type and filter

TEST_F(RequestTest, TheObjectTypeIsFoundAndMapped) {
    const standin::CapturedLog log;
    useMap("posixAccount = User\n");
    searchtest::TestFilter filter("objectClass", "POSIXaccount");
    EXPECT_FALSE(prepareFilter(filter.filter(), &m_request));
    EXPECT_EQ(m_request.shown.objectType, "POSIXaccount");
    EXPECT_EQ(m_request.agentType, "User");
    EXPECT_EQ(m_request.filter, "(objectClass=User)");
    EXPECT_TRUE(log.has("vex search: objectType = objectClass (POSIXaccount is mapped to User)"));
}

TEST_F(RequestTest, AFilterWithoutAnObjectTypeIsLoggedAsOne) {
    const standin::CapturedLog log;
    useMap("posixAccount = User\n");
    searchtest::TestFilter filter("uid", "ann");
    EXPECT_FALSE(prepareFilter(filter.filter(), &m_request));
    EXPECT_EQ(m_request.agentType, "");
    EXPECT_TRUE(log.has("vex search: objectType =  ( is mapped to )"));
}

TEST_F(RequestTest, WithoutAMapNothingIsSaidOfTheObjectType) {
    const standin::CapturedLog log;
    searchtest::TestFilter filter("objectClass", "posixAccount");
    EXPECT_FALSE(prepareFilter(filter.filter(), &m_request));
    EXPECT_EQ(m_request.shown.objectType, "");
    EXPECT_EQ(m_request.filter, "(objectClass=posixAccount)");
    EXPECT_THAT(log.records(), IsEmpty());
}

TEST_F(RequestTest, OnlyTheExactTypeMakesNetgroupsTheZones) {
    gNetgroupUseRfc2307 = true;
    useMap("nisNetgroup = NisNetgroup\n");
    searchtest::TestFilter filter("objectClass", "nisNetgroup");
    EXPECT_FALSE(prepareFilter(filter.filter(), &m_request));
    EXPECT_FALSE(m_request.netgroups);
    EXPECT_EQ(m_request.agentType, "NisNetgroup");

    useMap("nisNetgroup = nisNetgroup\n");
    gNetgroupUseRfc2307 = false;
    EXPECT_FALSE(prepareFilter(filter.filter(), &m_request));
    EXPECT_FALSE(m_request.netgroups);
    EXPECT_EQ(m_request.agentType, "nisNetgroup");
}

TEST_F(RequestTest, NetgroupsPassUntranslatedWhenTheyComeFromTheZone) {
    const standin::CapturedLog log;
    gNetgroupUseRfc2307 = true;
    useMap("nisNetgroup = nisNetgroup\nnisNetgroup.objectClass = class\n");
    searchtest::TestFilter filter("objectClass", "nisNetgroup");
    EXPECT_FALSE(prepareFilter(filter.filter(), &m_request));
    EXPECT_TRUE(m_request.netgroups);
    EXPECT_EQ(m_request.agentType, "");
    EXPECT_EQ(m_request.filter, "(objectClass=nisNetgroup)");
    EXPECT_TRUE(log.has("vex search: nisNetgroup use Rfc2307 NisNetgroup"));
}

TEST_F(RequestTest, AFilterThatCannotBeTranslatedIsRejectedAndLogged) {
    const standin::CapturedLog log;
    searchtest::TestFilter filter("~cn", "a");
    const auto rejection = prepareFilter(filter.filter(), &m_request);
    ASSERT_TRUE(rejection);
    EXPECT_EQ(rejection->result, LDAP_INVALID_SYNTAX);
    EXPECT_STREQ(rejection->text, "vex dirgate: invalid search filter");
    EXPECT_TRUE(log.has("filter parsing ()..."));
}

// ----------------------------------------------------------------------- base

struct BaseCase {
    const char* base;
    const char* result;  // null: rejected
};
void PrintTo(const BaseCase& one, std::ostream* out) {
    *out << '"' << one.base << '"';
}
class NetgroupBaseTest : public RequestTest, public testing::WithParamInterface<BaseCase> {};

TEST_P(NetgroupBaseTest, IsTheZonesOrTheClientsOwn) {
    useSettings("domain.name = a.b\nzone.dn = CN=Global,CN=Zones,DC=z,DC=b\n");
    m_request.netgroups = true;
    const auto rejection = prepareBase(GetParam().base, &m_request);
    if (GetParam().result == nullptr) {
        ASSERT_TRUE(rejection);
        EXPECT_EQ(rejection->result, LDAP_OTHER);
        EXPECT_STREQ(
            rejection->text,
            "vex dirgate: the specified search base is different from the currently joined domain dn or "
            "the currently joined zone domain dn");
        return;
    }
    EXPECT_FALSE(rejection);
    EXPECT_EQ(m_request.base, GetParam().result);
    EXPECT_EQ(m_request.zoneDomain, "z.b");
}

constexpr char kZoneNetgroups[] = "CN=netgroup,CN=Rfc2307NisMaps,CN=Global,CN=Zones,DC=z,DC=b";

INSTANTIATE_TEST_SUITE_P(All, NetgroupBaseTest,
                         testing::Values(BaseCase{"", kZoneNetgroups}, BaseCase{"DC=a,DC=b", kZoneNetgroups},
                                         BaseCase{"dc=A,dc=B", kZoneNetgroups},
                                         BaseCase{"dc=z,dc=b", "dc=z,dc=b"},
                                         BaseCase{"OU=x,DC=a,DC=b", "OU=x,DC=a,DC=b"},
                                         BaseCase{"cn=x,dc=elsewhere", "cn=x,dc=elsewhere"},
                                         BaseCase{"no dn at all", "no dn at all"},
                                         BaseCase{"dc=else,dc=where", nullptr}));

TEST_F(RequestTest, NetgroupsWithoutAZoneOrDomainAreRejected) {
    m_request.netgroups = true;
    useSettings("domain.name = a.b\n");
    auto rejection = prepareBase("DC=a,DC=b", &m_request);
    ASSERT_TRUE(rejection);
    EXPECT_EQ(rejection->result, LDAP_OTHER);
    EXPECT_STREQ(rejection->text, "vex dirgate: can not get currently joined zone dn");

    useSettings("zone.dn = CN=z,DC=a,DC=b\n");
    rejection = prepareBase("DC=a,DC=b", &m_request);
    ASSERT_TRUE(rejection);
    EXPECT_EQ(rejection->result, LDAP_OTHER);
    EXPECT_STREQ(rejection->text, "vex dirgate: can not get currently joined domain name");
}

TEST_F(RequestTest, ANetgroupBaseOfItsOwnPlaceNeedsNoDomainName) {
    m_request.netgroups = true;
    useSettings("zone.dn = CN=z,DC=c,DC=b\n");
    EXPECT_FALSE(prepareBase("OU=x,DC=a,DC=b", &m_request));
    EXPECT_EQ(m_request.base, "OU=x,DC=a,DC=b");
}

TEST_F(RequestTest, TheBaseOfANetgroupSearchIsLogged) {
    const standin::CapturedLog log;
    useSettings("domain.name = a.b\nzone.dn = CN=z,DC=c,DC=b\n");
    m_request.netgroups = true;
    prepareBase("", &m_request);
    prepareBase("dc=c,dc=b", &m_request);
    EXPECT_TRUE(
        log.has("vex search: uses currently joined zone dn and rfc2307 nisnetgroup path as the search base"));
    EXPECT_TRUE(log.has("vex search: uses currently joined zone domain dn as the search base"));
}

TEST_F(RequestTest, ABaseWithANulIsNoPlaceAtAll) {
    using namespace std::string_literals;
    for (const std::string& base : {"dc=x\0"s, "dc=x\0,dc=y"s, "cn=a\\00b,dc=x"s, "cn=$,dc=x\0"s}) {
        for (const bool netgroups : {false, true}) {
            m_request.netgroups = netgroups;
            const auto rejection = prepareBase(base, &m_request);
            ASSERT_TRUE(rejection) << base;
            EXPECT_EQ(rejection->result, LDAP_NO_SUCH_OBJECT);
            EXPECT_EQ(rejection->text, nullptr);
        }
    }
}

TEST_F(RequestTest, EveryOtherSearchKeepsItsBase) {
    useSettings("");
    EXPECT_FALSE(prepareBase("dc=else,dc=where", &m_request));
    EXPECT_EQ(m_request.base, "dc=else,dc=where");
}

TEST_F(RequestTest, CnDollarGoesWithTheCommaAfterIt) {
    const struct {
        const char* base;
        const char* result;
        bool fetches;
    } cases[] = {{"cn=$,dc=a", "dc=a", true},
                 {"CN=$,dc=a", "dc=a", true},
                 {"cn=$", "", true},
                 {"cn=a,dc=a", "cn=a,dc=a", false},
                 {"", "", false}};
    for (const auto& one : cases) {
        SearchRequest request;
        request.base = one.base;
        prepareFetchByDn(&request);
        EXPECT_EQ(request.base, one.result);
        EXPECT_EQ(request.fetchByDn, one.fetches) << one.base;
    }
}

// ----------------------------------------------------------------- attributes

class Names {
  public:
    explicit Names(std::vector<std::string> names) : m_texts(std::move(names)), m_names(m_texts.size() + 1) {
        for (std::size_t i = 0; i < m_texts.size(); ++i) {
            m_names[i].an_name = {m_texts[i].size(), m_texts[i].data()};
        }
    }
    const AttributeName* get() const { return m_names.data(); }

  private:
    std::vector<std::string> m_texts;
    std::vector<AttributeName> m_names;
};

TEST_F(RequestTest, AttributesAreTranslatedAndTheModulesOwnAreAdded) {
    useMap(
        "posixAccount = User\nposixAccount.uid = sAMAccountName\nposixAccount.cn = displayName\n"
        "posixAccount.gone =\n");
    m_request.shown.objectType = "posixAccount";
    m_request.agentType = "User";
    const AttributeList& list =
        prepareAttributes(Names({"uid", "*", "1.1", "mail", "gone"}).get(), &m_request);
    EXPECT_THAT(m_request.shown.requested, ElementsAre("sAMAccountName", "_dn", "mail", "gone", "displayName",
                                                       "_objectCategory", "_nssEntryInvalid"));
    EXPECT_THAT(list.asked, ElementsAre("uid", "*", "1.1", "mail", "gone"));
    EXPECT_FALSE(m_request.shown.includeCn);
}

TEST_F(RequestTest, CnAskedForByNameIsNotAddedASecondTime) {
    useMap("posixAccount = User\nposixAccount.cn = displayName\n");
    m_request.shown.objectType = "posixAccount";
    m_request.agentType = "User";
    prepareAttributes(Names({"CN"}).get(), &m_request);
    EXPECT_TRUE(m_request.shown.includeCn);
    EXPECT_THAT(m_request.shown.requested, ElementsAre("displayName", "_objectCategory", "_nssEntryInvalid"));
}

TEST_F(RequestTest, NoNamesOrOnlyAStarMeanAll) {
    useMap("posixAccount = User\n");
    m_request.agentType = "User";
    prepareAttributes(nullptr, &m_request);
    EXPECT_THAT(m_request.shown.requested, IsEmpty());
    EXPECT_THAT(prepareAttributes(Names({"*"}).get(), &m_request).asked, ElementsAre("*"));
    EXPECT_THAT(m_request.shown.requested, IsEmpty());
}

TEST_F(RequestTest, WithoutAMappedTypeNamesStayAndNothingIsAdded) {
    prepareAttributes(Names({"uid"}).get(), &m_request);
    EXPECT_THAT(m_request.shown.requested, ElementsAre("uid"));
    EXPECT_FALSE(m_request.shown.includeCn);
    prepareAttributes(Names({"uid", "Cn"}).get(), &m_request);
    EXPECT_TRUE(m_request.shown.includeCn) << "whatever is mapped";
}

TEST_F(RequestTest, AtMost127NamesAreAskedForAndAbove124NoneIsAdded) {
    useMap("posixAccount = User\n");
    const struct {
        std::size_t names;
        std::size_t asked;
    } cases[] = {{124, 126}, {125, 125}, {127, 127}, {200, 127}};
    for (const auto& one : cases) {
        SearchRequest request;
        request.shown.objectType = "posixAccount";
        request.agentType = "User";
        std::vector<std::string> names;
        for (std::size_t i = 0; i < one.names; ++i) names.push_back("a" + std::to_string(i));
        prepareAttributes(Names(names).get(), &request);
        EXPECT_EQ(request.shown.requested.size(), one.asked) << one.names;
    }
}

// -------------------------------------------------------------------- caching

TEST_F(RequestTest, TheKeyIsFilterBaseAndScopeInLowerCase) {
    m_request.scope = LDAP_SCOPE_SUBTREE;
    m_request.filter = "(CN=A)";
    m_request.base = "DC=X";
    prepareCaching(true, &m_request);
    EXPECT_EQ(m_request.key, "(cn=a)dc=x2");
}

TEST_F(RequestTest, OnlyWhatEveryObjectCouldCarryIsCacheable) {
    const standin::CapturedLog log;
    useCache({"mail", "sAMAccountName"});
    const struct {
        std::vector<std::string> names;
        bool cacheable;
    } cases[] = {
        {{}, true}, {{"MAIL"}, true}, {{"mail", "_dn", "_anything"}, true}, {{"mail", "unknown"}, false}};
    for (const auto& one : cases) {
        m_request.shown.requested = one.names;
        prepareCaching(true, &m_request);
        EXPECT_EQ(m_request.cacheable, one.cacheable);
        prepareCaching(false, &m_request);
        EXPECT_FALSE(m_request.cacheable) << "a disabled cache";
    }
    EXPECT_EQ(log.count("Requested attribute(s) is not supported by vexagent."), 1);
}

TEST_F(RequestTest, NothingIsCacheableBeforeTheFirstBindOrInAForestSearch) {
    const standin::CapturedLog log;
    prepareCaching(true, &m_request);
    EXPECT_FALSE(m_request.cacheable);
    EXPECT_TRUE(log.has("Requested attribute(s) is not supported by vexagent."));
    useCache();
    m_request.fetchByDn = true;
    prepareCaching(true, &m_request);
    EXPECT_FALSE(m_request.cacheable);
}

TEST_F(RequestTest, NothingIsCacheableWhereTheCaseOfAValueCounts) {
    useCache();
    const struct {
        const char* attribute;
        const char* value;
        bool cacheable;
    } cases[] = {
        {"memberUid", "ANN", false}, {"memberUid", "ann", true}, {"objectClass", "posixAccount", true}};
    for (const auto& one : cases) {
        searchtest::TestFilter filter(one.attribute, one.value);
        EXPECT_FALSE(prepareFilter(filter.filter(), &m_request));
        prepareCaching(true, &m_request);
        EXPECT_EQ(m_request.cacheable, one.cacheable) << one.attribute << '=' << one.value;
    }
    gNetgroupUseRfc2307 = true;
    useMap("nisNetgroup = nisNetgroup\n");
    FilterBuilder builder;
    for (const auto& [name, cacheable] : {std::pair{"Host", false}, std::pair{"host", true}}) {
        const std::string text = std::string("(&(objectClass=nisNetgroup)(nisNetgroupTriple=") + name + "))";
        EXPECT_FALSE(prepareFilter(builder.parse(text), &m_request));
        EXPECT_TRUE(m_request.netgroups);
        prepareCaching(true, &m_request);
        EXPECT_EQ(m_request.cacheable, cacheable) << "in netgroups, too: " << name;
    }
}

// ---------------------------------------------------------------- fetch by uid

TEST_F(RequestTest, FetchByUidRewritesTheFilterOnlyWhereItCan) {
    const struct {
        const char* base;
        const char* filter;
        int scope;
        const char* map;
        const char* result;
        bool done;
    } cases[] = {
        {"uid=jdoe,ou=people,dc=a", "(objectClass=*)", 0, "posixAccount = User\nposixAccount.uid = name\n",
         "(&(objectClass=User)(name=jdoe))", true},
        {"uid=jdoe", "(objectClass=*)", 0, "posixAccount = User\nposixAccount.uid = name\n",
         "(objectClass=*)", true},
        {"uid=jdoe,dc=a", "(objectClass=*)", 0, "posixAccount = User\n", "(objectClass=*)", true},
        {"uid=jdoe,dc=a", "(objectClass=*)", 0, "posixAccount.uid = name\n", "(objectClass=*)", true},
        {"UID=jdoe,dc=a", "(objectClass=*)", 0, "posixAccount = User\n", "(objectClass=*)", false},
        {"uid=jdoe,dc=a", "(objectClass=*)", 2, "posixAccount = User\n", "(objectClass=*)", false},
        {"uid=jdoe,dc=a", "(uid=jdoe)", 0, "posixAccount = User\n", "(uid=jdoe)", false},
        {"uid=*,dc=a", "(objectClass=*)", 0, "posixAccount = User\nposixAccount.uid = name\n",
         "(&(objectClass=User)(name=\\2A))", true},
        {"uid=doe\\2C (j),dc=a", "(objectClass=*)", 0, "posixAccount = User\nposixAccount.uid = name\n",
         "(&(objectClass=User)(name=doe\\2C \\28j\\29))", true},  // as slapd escapes a comma
        {"uid=dc=*,dc=a", "(objectClass=*)", 0, "posixAccount = User\nposixAccount.uid = name\n",
         "(&(objectClass=User)(name=dc=\\2A))", true},  // looks like a DN, but is a name
        {"uid=,dc=a", "(objectClass=*)", 0, "posixAccount = User\nposixAccount.uid = name\n",
         "(objectClass=*)", true},
    };
    gFetchByDnUID = true;
    for (const auto& one : cases) {
        useMap(one.map);
        SearchRequest request;
        request.base = one.base;
        request.filter = one.filter;
        request.scope = one.scope;
        prepareFetchByUid(&request);
        EXPECT_EQ(request.filter, one.result) << one.base << " " << one.map;
        EXPECT_EQ(request.fetchByUidDone, one.done) << one.base << " " << one.map;
        EXPECT_EQ(request.shown.objectType, one.done ? "posixAccount" : "");
        EXPECT_EQ(request.base, one.base);
    }
    gFetchByDnUID = false;
    SearchRequest request;
    request.base = "uid=jdoe,dc=a";
    request.filter = "(objectClass=*)";
    prepareFetchByUid(&request);
    EXPECT_FALSE(request.fetchByUidDone);
}

TEST_F(RequestTest, FetchByUidIsLogged) {
    const standin::CapturedLog log;
    gFetchByDnUID = true;
    m_request.base = "uid=jdoe,dc=a";
    m_request.filter = "(objectClass=*)";
    prepareFetchByUid(&m_request);
    EXPECT_TRUE(log.has("vex search Do fetchbydnuid."));
    EXPECT_TRUE(log.has("vex search after fetchbydnuid transformation, filter = (objectClass=*)"));
}

TEST_F(RequestTest, TheDomainEntryTakesItsDcFromTheFirstRdn) {
    EXPECT_EQ(domainEntryLdif("dc=a,dc=b", "DC=A,DC=b"), "dn: dc=a,dc=b\nobjectclass: domain\ndc: A\n");
    EXPECT_EQ(domainEntryLdif("dc=a", "whole"), "dn: dc=a\nobjectclass: domain\ndc: whole\n");
    EXPECT_EQ(domainEntryLdif("dc=a", "dc=a+ou=b"), "dn: dc=a\nobjectclass: domain\ndc: a+ou=b\n");
}

}  // namespace
