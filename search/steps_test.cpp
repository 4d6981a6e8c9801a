// SPDX-License-Identifier: Apache-2.0
// What comes before what in a search, and what each step leaves alone.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>

#include "backend/base/settings.h"
#include "search/fixture_testing.h"
#include "search/search_testing.h"
#include "tests/standin/captured.h"
#include "vorn/settings.h"
#include "vorn/temporary_folder_testing.h"
#include "vorn/thread.h"

#include "tests/standin/slapd_standin.h"

namespace {

using searchtest::person;
using searchtest::Request;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class StepsTest : public searchtest::Fixture {
  protected:
    // Makes the host's settings hold this text.
    void useSettings(const std::string& text) {
        setenv("ZANTHE_CONF", m_folder.write("zanthe.conf", text).c_str(), 1);
        vorn::Props(true, true);
    }
    static Request searchFor(const char* objectClass) {
        Request request;
        request.attribute = "objectClass";
        request.value = objectClass;
        return request;
    }

    const vorn::test::TemporaryFolder m_folder;
};

// ------------------------------------------------------------- what is asked

TEST_F(StepsTest, TheAgentIsGivenTheBaseAsTheClientWroteIt) {
    Request request;
    request.base = "OU=Staff Café,DC=Example,DC=com";
    m_client.search(request);
    EXPECT_THAT(standin::requests(), Contains(HasSubstr(R"~(, "OU=Staff Café,DC=Example,DC=com", )~")));
}

TEST_F(StepsTest, TheSizeLimitGoesToTheAgent) {
    Request request;
    request.sizeLimit = 7;
    m_client.search(request);
    EXPECT_THAT(standin::requests(), Contains(HasSubstr(R"~(, 2, 7, 0))~")));
}

TEST_F(StepsTest, AFilterThatIsRejectedLeavesTheNullSessionAlone) {
    useMap("posixAccount = User\n");
    Request request;
    request.attribute = "~approximate";
    EXPECT_EQ(m_client.search(request).back().code, LDAP_INVALID_SYNTAX);
    EXPECT_THAT(standin::requests(), IsEmpty());
}

TEST_F(StepsTest, AUidThatBecomesAFilterIsAskedForTyped) {
    gFetchByDnUID = true;
    useMap("posixAccount = User\nposixAccount.uid = sAMAccountName\n");
    Request request = searchFor(nullptr);
    request.base = "uid=jdoe,ou=people,dc=a";
    request.scope = LDAP_SCOPE_BASE;
    m_client.search(request);
    EXPECT_THAT(standin::requests(), Contains("vexSetOption(session1, 64, 1)"));
}

TEST_F(StepsTest, ASearchForDnsAsksTheForestForNetgroupsOfTheZoneToo) {
    useSettings("domain.name = a.b\nzone.dn = CN=z,DC=c,DC=b\n");
    gNetgroupUseRfc2307 = true;
    useMap("nisNetgroup = nisNetgroup\n");
    Request request = searchFor("nisNetgroup");
    request.base = "cn=$,cn=netgroup,dc=c,dc=b";
    m_client.search(request);
    EXPECT_THAT(standin::requests(), Contains(HasSubstr(R"~(vexLdapSearchOpen(session1, "$", )~")));
}

// -------------------------------------------------------- what ends a search

// The failure's result, and the one that ends each search; no entry.
void expectFailureOnly(const std::vector<standin::Sent>& sent) {
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(sent[0].code, LDAP_UNAVAILABLE);
    EXPECT_EQ(sent[1].code, LDAP_NO_SUCH_OBJECT);
}

TEST_F(StepsTest, AFailedFetchEndsTheSearch) {
    standin::search({person("ann"), person("bob")});
    standin::fetchFails("CN=ann,DC=example,DC=com", 6);
    standin::fetch("CN=bob,DC=example,DC=com", person("bob"));
    Request request;
    request.base = "cn=$,dc=example,dc=com";
    expectFailureOnly(m_client.search(request));
    EXPECT_THAT(standin::requests(), Not(Contains(HasSubstr("CN=bob"))));
}

TEST_F(StepsTest, ADnThatCannotBeReadEndsTheSearch) {
    standin::search(
        {{standin::unreadable("_dn", 6), {"_objectCategory", {"Person"}}, {"mail", {"x"}}}, person("bob")});
    standin::fetch("CN=bob,DC=example,DC=com", person("bob"));
    Request request;
    request.base = "cn=$,dc=example,dc=com";
    expectFailureOnly(m_client.search(request));
    EXPECT_THAT(standin::requests(), Not(Contains(HasSubstr("vexLdapFetch"))));
}

// The second may turn between the question and the answer: then it is asked again.
TEST_F(StepsTest, TheSecondOfTheDeadlineIsNotPastIt) {
    std::vector<standin::Sent> sent;
    Request request;
    do {
        standin::reset();
        standin::search({person("a")});
        request.start = std::time(nullptr) - 5;
        request.timeLimit = 5;
        sent = m_client.search(request);
    } while (std::time(nullptr) != request.start + 5);
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(sent[1].code, LDAP_SUCCESS);
}

TEST_F(StepsTest, ADeadlineThatIsFarOffEndsNothing) {
    standin::search({person("a")});
    Request request;
    request.timeLimit = 3600;
    EXPECT_EQ(m_client.search(request).back().code, LDAP_SUCCESS);
}

// ----------------------------------------------------- what is passed over

TEST_F(StepsTest, AnObjectOfWhichNothingCanBeWrittenIsPassedOverBeforeAnyFetch) {
    standin::search({{standin::unreadable("_dn", 6), {"_objectCategory", {"Person"}}}, person("bob")});
    standin::fetch("CN=bob,DC=example,DC=com", person("bob"));
    Request request;
    request.base = "cn=$,dc=example,dc=com";
    const auto sent = m_client.search(request);
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_THAT(sent[0].text, HasSubstr("CN=bob"));
    EXPECT_EQ(sent[1].code, LDAP_SUCCESS);
}

TEST_F(StepsTest, AFetchedObjectThatCarriesTheInvalidMarkIsNotReturned) {
    standin::search({person("ann"), person("bob")});
    auto marked = person("ann");
    marked.push_back({"_nssEntryInvalid", {"FALSE"}});
    standin::fetch("CN=ann,DC=example,DC=com", marked);
    standin::fetch("CN=bob,DC=example,DC=com", person("bob"));
    Request request;
    request.base = "cn=$,dc=example,dc=com";
    const auto sent = m_client.search(request);
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_THAT(sent[0].text, HasSubstr("CN=bob"));
}

TEST_F(StepsTest, AMarkedObjectIsNotConverted) {
    auto marked = person("ann");
    marked.push_back({"_nssEntryInvalid", {"TRUE"}});
    standin::search({marked});
    const standin::CapturedLog log;
    m_client.search(Request{});
    EXPECT_THAT(log.records(), Not(Contains(HasSubstr("After translation"))));
}

TEST_F(StepsTest, OnlyABaseSearchDropsEntriesWithAnotherDn) {
    standin::search({person("ann"), person("bob")});
    Request request;
    request.base = "cn=ANN,dc=example,dc=com";
    request.scope = LDAP_SCOPE_ONELEVEL;
    EXPECT_EQ(m_client.search(request).size(), 3U);
}

// --------------------------------------------------------- what is converted

// A map in which nothing stands names no types: the agent's own classes stay.
TEST_F(StepsTest, AMapWithoutEntriesNamesNoObjectType) {
    useMap("");
    auto ann = person("ann");
    ann.push_back({"objectCategory", {"CN=Person"}});
    standin::search({ann});
    const auto sent = m_client.search(searchFor("Person"));
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_THAT(sent[0].text, HasSubstr("objectclass: user\n"));
    EXPECT_THAT(sent[0].text, HasSubstr("OBJECTCATEGORY: CN=Person\n"));
}

// The type is forgotten, its key is not: the netgroup shows the class that was asked for.
TEST_F(StepsTest, ANetgroupOfTheZoneIsConvertedAsAMappedObject) {
    useSettings("domain.name = a.b\nzone.dn = CN=z,DC=c,DC=b\n");
    gNetgroupUseRfc2307 = true;
    useMap("nisNetgroup = nisNetgroup\n");
    standin::search({{{"_dn", {"CN=hosts,DC=c,DC=b"}},
                      {"_objectCategory", {"nisNetgroup"}},
                      {"objectCategory", {"CN=NisNetgroup"}},
                      {"objectClass", {"top", "own"}}}});
    Request request = searchFor("nisNetgroup");
    request.base = "dc=a,dc=b";
    const auto sent = m_client.search(request);
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_THAT(sent[0].text, HasSubstr("objectclass: top\nobjectclass: nisNetgroup\n"));
    EXPECT_THAT(sent[0].text, Not(HasSubstr("OBJECTCATEGORY")));
}

TEST_F(StepsTest, TheDnIsLeftOutOfABaseSearchOfTheRootAlone) {
    const struct {
        const char* base;
        int scope;
        const char* dn;
    } cases[] = {{"", LDAP_SCOPE_BASE, "dn: \n"},
                 {"", LDAP_SCOPE_SUBTREE, "dn: CN=ann,DC=example,DC=com\n"},
                 {"cn=ann,dc=example,dc=com", LDAP_SCOPE_BASE, "dn: CN=ann,DC=example,DC=com\n"}};
    for (const auto& one : cases) {
        standin::search({person("ann")});
        Request request;
        request.base = one.base;
        request.scope = one.scope;
        const auto sent = m_client.search(request);
        ASSERT_EQ(sent.size(), 2U) << one.base << " " << one.scope;
        EXPECT_THAT(sent[0].text, testing::StartsWith(one.dn)) << one.base << " " << one.scope;
    }
}

// Whatever its base: there is no DN to compare.
TEST_F(StepsTest, AnEntryWithoutADnIsNoOtherThanTheBase) {
    standin::search({{{"_dn", {""}}, {"_objectCategory", {"Person"}}, {"mail", {"x"}}}});
    Request request;
    request.base = "cn=ann,dc=example,dc=com";
    request.scope = LDAP_SCOPE_BASE;
    EXPECT_EQ(m_client.search(request).size(), 2U);
}

// ------------------------------------------------------------- what is sent

TEST_F(StepsTest, AStarMeansAllAttributesWhateverElseTheRequestSays) {
    standin::search({person("ann")});
    Request request;
    request.attributes = {"*"};
    EXPECT_THAT(m_client.search(request)[0].attributes, IsEmpty());
}

TEST_F(StepsTest, EachEntryIsSentWithoutFlagsOfTheReplyBefore) {
    Request request;
    request.before.sr_flags = REP_ENTRY_MODIFIABLE;
    standin::search({person("ann")});
    EXPECT_EQ(m_client.search(request)[0].flags, 0U);
    request.scope = LDAP_SCOPE_BASE;
    EXPECT_EQ(m_client.search(request)[0].flags, 0U) << "the back-end's suffix";
}

TEST_F(StepsTest, ALimitIsToldWithoutAText) {
    static char stale[] = "of the request before";
    Request request;
    request.before.sr_text = stale;
    request.sizeLimit = 0;
    standin::search({person("ann")});
    EXPECT_FALSE(m_client.search(request)[0].hasText);
}

TEST_F(StepsTest, AResultThatTheReplyHadGivesWayToTheSuffixs) {
    Request request;
    request.before.sr_err = LDAP_OTHER;
    request.scope = LDAP_SCOPE_BASE;
    EXPECT_EQ(m_client.search(request).back().code, LDAP_SUCCESS);
}

TEST_F(StepsTest, NoEntryStaysInTheReply) {
    standin::search({person("ann")});
    m_client.search(Request{});
    EXPECT_EQ(m_client.reply().sr_entry, nullptr);
    Request request;
    request.scope = LDAP_SCOPE_BASE;
    m_client.search(request);
    EXPECT_EQ(m_client.reply().sr_entry, nullptr) << "the back-end's suffix";
}

TEST_F(StepsTest, AFailuresTextFillsItsBuffer) {
    standin::answer("vexLdapSearchOpen", 8);
    standin::health(12, 1, 12, std::string(2000, 'x'));
    EXPECT_EQ(m_client.search(Request{})[0].text.size(), 510U);
}

// -------------------------------------------------------- what is given back

TEST_F(StepsTest, ASessionWhoseSearchCannotBeOpenedIsClosedBeforeTheResultIsRepeated) {
    std::size_t sent = 0;
    standin::onCall("vexSessionClose", [&] { sent = m_client.connection().sent().size(); });
    standin::answer("vexLdapSearchOpen", 6);
    EXPECT_EQ(m_client.search(Request{}).size(), 2U);
    EXPECT_EQ(sent, 1U);
}

TEST_F(StepsTest, AFoundObjectIsGivenBackBeforeTheWholeOneIsFetched) {
    standin::search({person("ann")});
    standin::fetch("CN=ann,DC=example,DC=com", person("ann"));
    Request request;
    request.base = "cn=$,dc=example,dc=com";
    m_client.search(request);
    const auto calls = standin::calls();
    const auto freed = std::find(calls.begin(), calls.end(), "vexFreeObject(object1)");
    EXPECT_TRUE(std::any_of(freed, calls.end(),
                            [](const std::string& call) { return call.starts_with("vexLdapFetch"); }));
}

TEST_F(StepsTest, TheSessionIsClosedBeforeTheSuffixIsAnswered) {
    bool closedFirst = false;
    standin::onCall("vexSessionClose", [&] { closedFirst = m_client.connection().sent().empty(); });
    Request request;
    request.scope = LDAP_SCOPE_BASE;
    EXPECT_EQ(m_client.search(request).size(), 2U);
    EXPECT_TRUE(closedFirst);
}

// ---------------------------------------------------------- how it is told

TEST_F(StepsTest, TheResultIsSentBeforeTheLastLineIsLogged) {
    const standin::CapturedLog log;
    bool logged = true;
    m_client.connection().onSend([&] { logged = log.has("vex search complete on connection: 1"); });
    m_client.search(Request{});
    EXPECT_FALSE(logged);
    EXPECT_TRUE(log.has("vex search complete on connection: 1"));
}

TEST_F(StepsTest, StatisticsThatSayNothingAreNoLine) {
    const standin::CapturedLog log;
    m_client.search(Request{});
    EXPECT_THAT(log.records(), Not(Contains(testing::EndsWith(" JPrintf "))));
}

// ------------------------------------------------------------ what is cached

class CachedStepsTest : public StepsTest {
  protected:
    CachedStepsTest() {
        vorn::Thread::SetThreadsActive(true);
        useCache();
    }
    // The list cached under a key, or nothing.
    static std::vector<std::string> cached(const std::string& key) {
        std::shared_ptr<GuidList> list;
        if (SearchCacheManager::GetCacheManager()->getList(key, list) != SearchCacheManager::kHit) return {};
        return *list;
    }
};

TEST_F(CachedStepsTest, AUidThatBecomesAFilterIsCachedUnderWhatTheClientAskedFor) {
    gFetchByDnUID = true;
    useMap("posixAccount = User\nposixAccount.uid = sAMAccountName\n");
    standin::search({person("jdoe")});
    Request request = searchFor(nullptr);
    request.base = "uid=jdoe,ou=people,dc=a";
    request.scope = LDAP_SCOPE_BASE;
    request.attributes = {"mail"};
    EXPECT_EQ(m_client.search(request).size(), 2U);
    EXPECT_THAT(cached("(objectclass=*)uid=jdoe,ou=people,dc=a0"), ElementsAre("guid-jdoe"));
}

TEST_F(CachedStepsTest, AnObjectWithoutAReadableGuidIsLeftOutOfTheList) {
    standin::search({{{"_dn", {"CN=ann,DC=example,DC=com"}},
                      standin::unreadable("_GUID", 6),
                      {"_objectCategory", {"Person"}}},
                     person("bob")});
    Request request;
    request.attributes = {"mail"};
    EXPECT_EQ(m_client.search(request).size(), 3U) << "both are sent";
    EXPECT_THAT(cached("(uid=ann)dc=example,dc=com2"), ElementsAre("guid-bob"));
}

}  // namespace
