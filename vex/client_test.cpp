// SPDX-License-Identifier: Apache-2.0
// What the calls ask the agent, and what they make of its answers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "vex/handles.h"
#include "vex/scripted_agent_testing.h"
#include "vex/session.h"
#include "vex/wire.h"
#include "vorn/settings.h"

namespace vextest {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using vex::UniqueObject;
using vex::UniqueSession;
using vex::UniqueString;
namespace wire = vex::wire;

UniqueSession openSession() {
    vexSession* session = nullptr;
    EXPECT_EQ(vexSessionOpen(VEX_SESSION_LOCAL, VEX_INTERFACE_LEVEL, &session), VEX_OK);
    return UniqueSession(session);
}

vexCode openSearch(vexSession* session, vexSearchHandle** search) {
    return vexLdapSearchOpen(session, "", "(cn=*)", "", nullptr, 2, -1, 0, search);
}

// The first attribute value, or what the code was.
std::string valueOf(const vexObject* object, const char* name) {
    UniqueString text;
    const vexCode code = vex::readAttribute(nullptr, object, name, &text);
    return code == VEX_OK ? text.get() : "code " + std::to_string(code);
}

std::string nextName(vexSearchHandle* search) {
    vexObject* object = nullptr;
    const vexCode code = vexLdapSearchNext(search, &object);
    return code == VEX_OK ? valueOf(UniqueObject(object).get(), "cn") : "code " + std::to_string(code);
}

struct LastError {
    int code = -1, errSystem = -1, errCode = -1;
    std::string text = "none";
};

LastError lastError(vexSession* session) {
    LastError error;
    char* text = nullptr;
    error.code = vexGetLastProtocolError(session, &error.errSystem, &error.errCode, &text);
    if (text) error.text = text;
    vexFreeString(text);
    return error;
}

struct Client : testing::Test {
    ScriptedAgent agent;

    void answerAll(const Reply& reply) {
        agent.onRequest(
            [reply](const Peer& peer, const wire::Request& request) { peer.answer(request, reply); });
    }
};

// ---------------------------------------------------------------- sessions

TEST_F(Client, OpeningASessionAsksNothing) {
    const UniqueSession session = openSession();
    EXPECT_EQ(agent.requests(), 0);
}

TEST_F(Client, ManySessionsShareOneConnection) {
    std::vector<UniqueSession> sessions;
    for (int i = 0; i < 1000; ++i) sessions.push_back(openSession());
    EXPECT_EQ(agent.connections(), 1);
}

TEST_F(Client, OpeningFailsAtOnceWhenNoAgentListens) {
    agent.stop();
    auto* session = reinterpret_cast<vexSession*>(this);
    EXPECT_EQ(vexSessionOpen(VEX_SESSION_LOCAL, VEX_INTERFACE_LEVEL, &session), VEX_BROKEN_SESSION);
    EXPECT_EQ(session, reinterpret_cast<vexSession*>(this)) << "the place is left as it was";
}

TEST_F(Client, OpeningNoticesThatTheKeptConnectionsAgentIsGone) {
    openSession();
    agent.stop();
    vexSession* session = nullptr;
    EXPECT_EQ(vexSessionOpen(VEX_SESSION_LOCAL, VEX_INTERFACE_LEVEL, &session), VEX_BROKEN_SESSION);
}

TEST_F(Client, OpeningWithoutReadableSettingsIsABrokenSession) {
    ::setenv("ZANTHE_CONF", "/nonexistent/zanthe.conf", 1);
    EXPECT_THROW(vorn::Props(true, true), vorn::PropertiesException);
    vexSession* session = nullptr;
    EXPECT_EQ(vexSessionOpen(VEX_SESSION_LOCAL, VEX_INTERFACE_LEVEL, &session), VEX_BROKEN_SESSION);
}

TEST_F(Client, SettingsThatAreRewrittenCountWhenTheyAreReadAgain) {
    std::filesystem::remove(vorn::settingsFile());
    EXPECT_NE(openSession(), nullptr);
}

TEST(ATimeout, IsOneSecondToADayOrAsGoodAsNotSet) {
    for (const int set : {-1, 0, 1, 2, 86'400, 86'401}) {
        const ScriptedAgent agent(set);
        const int counts = set >= 1 && set <= 86'400 ? set : VEX_DEADLINE_SECONDS;
        EXPECT_EQ(vex::configuredEndpoint().timeout, std::chrono::seconds(counts)) << set;
    }
}

// In a process of its own, which has read none yet.
TEST(ClientDeath, NeedsNoSettings) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            ::unsetenv("ZANTHE_CONF");
            ::_exit(vex::configuredEndpoint().path.empty() ? 1 : 0);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(Client, OnlyLocalSessionsOfThisLevelExist) {
    vexSession* session = nullptr;
    EXPECT_EQ(vexSessionOpen(1, 21, nullptr), VEX_INVALID_ARGUMENT);
    EXPECT_EQ(vexSessionOpen(2, 21, &session), VEX_NOT_SUPPORTED);
    EXPECT_EQ(vexSessionOpen(1, 20, &session), VEX_NOT_SUPPORTED);
    EXPECT_EQ(session, nullptr);
}

TEST_F(Client, ANullSessionIsABrokenHandle) {
    vexSearchHandle* search;
    vexObject* object;
    vexStringSet* names;
    int number = 1;
    char* text;
    EXPECT_EQ(vexSessionClose(nullptr), VEX_BROKEN_HANDLE);
    EXPECT_EQ(vexSetOption(nullptr, 4, &number, 4), VEX_BROKEN_HANDLE);
    EXPECT_EQ(openSearch(nullptr, &search), VEX_BROKEN_HANDLE);
    EXPECT_EQ(vexLdapSearchNext(nullptr, &object), VEX_BROKEN_HANDLE);
    EXPECT_EQ(vexLdapSearchClose(nullptr), VEX_BROKEN_HANDLE);
    EXPECT_EQ(vexLdapFetch(nullptr, "", "CN=x", nullptr, &object), VEX_BROKEN_HANDLE);
    EXPECT_EQ(vexLookupObjectByGuid(nullptr, "x", &object), VEX_BROKEN_HANDLE);
    EXPECT_EQ(vexAuthValidatePlainTextUser(nullptr, "u", "p", 0), VEX_BROKEN_HANDLE);
    EXPECT_EQ(vexGetObjectSupportedAttributes(nullptr, &names), VEX_BROKEN_HANDLE);
    EXPECT_EQ(vexSystemHealthInfo(nullptr, 0, &number, &number, &number, &text), VEX_BROKEN_HANDLE);
    EXPECT_EQ(vexGetLastProtocolError(nullptr, &number, &number, &text), VEX_BROKEN_HANDLE);
    EXPECT_EQ(agent.requests(), 0);
}

TEST_F(Client, ASearchOutlivesItsSessionOnlyToBeClosed) {
    answerAll({.objects = {packed(person("ann"))}, .search = 7});
    vexSession* session = openSession().release();
    vexSearchHandle* search = nullptr;
    ASSERT_EQ(openSearch(session, &search), VEX_OK);
    EXPECT_EQ(search->session, session);
    EXPECT_EQ(vexSessionClose(session), VEX_OK);
    EXPECT_EQ(vexSessionClose(session), VEX_BROKEN_HANDLE) << "closed before";
    EXPECT_EQ(nextName(search), "code 32");
    EXPECT_EQ(vexLdapSearchClose(search), VEX_OK);
    EXPECT_TRUE(agent.eventually([&] { return agent.requests() == 2; }));
    EXPECT_THAT(agent.bodies(), ElementsAre("SearchOpen", "SearchClose"));
}

// ----------------------------------------------------------------- options

TEST_F(Client, OptionsTravelWithTheNextRequests) {
    std::vector<std::pair<int, int>> seen;
    agent.onRequest([&](const Peer& peer, const wire::Request& request) {
        seen.clear();
        if (request.options())
            for (const auto* option : *request.options()) seen.emplace_back(option->id(), option->value());
        peer.answer(request, {});
    });
    const UniqueSession session = openSession();
    int condition;
    auto ask = [&] { return vexSystemHealthInfo(session.get(), 0, &condition, nullptr, nullptr, nullptr); };
    EXPECT_EQ(ask(), VEX_OK);
    EXPECT_THAT(seen, IsEmpty());
    const int one = 1, minusTwo = -2;
    EXPECT_EQ(vexSetOption(session.get(), VEX_OPTION_ALLOW_CACHED, &one, 4), VEX_OK);
    EXPECT_EQ(vexSetOption(session.get(), VEX_OPTION_ZONE_VIEW, &minusTwo, 4), VEX_OK);
    EXPECT_EQ(agent.requests(), 1) << "setting an option is local";
    EXPECT_EQ(ask(), VEX_OK);
    EXPECT_THAT(seen, ElementsAre(std::pair(4, -2), std::pair(0x1000, 1)));
    EXPECT_EQ(vexSetOption(session.get(), VEX_OPTION_ZONE_VIEW, &one, 4), VEX_OK);
    EXPECT_EQ(ask(), VEX_OK);
    EXPECT_THAT(seen, ElementsAre(std::pair(4, 1), std::pair(0x1000, 1)));
}

TEST_F(Client, AnOptionIsFourBytesOfAKnownNumber) {
    const UniqueSession session = openSession();
    const int one = 1;
    EXPECT_EQ(vexSetOption(session.get(), 4, nullptr, 4), VEX_INVALID_ARGUMENT);
    EXPECT_EQ(vexSetOption(session.get(), 4, &one, 8), VEX_INVALID_ARGUMENT);
    EXPECT_EQ(vexSetOption(session.get(), 5, &one, 4), VEX_NOT_SUPPORTED);
    for (const int option : {4, 64, 0x100, 0x1000})
        EXPECT_EQ(vexSetOption(session.get(), option, &one, 4), VEX_OK) << option;
}

// ---------------------------------------------------------------- searches

TEST_F(Client, ASearchsArgumentsArriveAsGiven) {
    std::string domain, filter, base, attributes;
    int scope = -1, sizeLimit = -2, pageSize = -1;
    agent.onRequest([&](const Peer& peer, const wire::Request& request) {
        const auto& open = *request.body_as_SearchOpen();
        domain = open.domain() ? open.domain()->str() : "-";
        filter = open.filter() ? open.filter()->str() : "-";
        base = open.base() ? open.base()->str() : "-";
        attributes = open.attributes() ? "" : "-";
        if (open.attributes())
            for (const auto* name : *open.attributes()) attributes += name->str() + ",";
        scope = open.scope(), sizeLimit = open.size_limit(), pageSize = open.page_size();
        peer.answer(request, {});
    });
    const UniqueSession session = openSession();
    vexSearchHandle* search = nullptr;
    const char* const names[] = {"cn", "uidNumber", nullptr};
    ASSERT_EQ(vexLdapSearchOpen(session.get(), "$", "(cn=a)", "DC=example", names, 1, 20, 10, &search),
              VEX_OK);
    vexLdapSearchClose(search);
    EXPECT_EQ(domain + " " + filter + " " + base + " " + attributes, "$ (cn=a) DC=example cn,uidNumber,");
    EXPECT_THAT((std::vector{scope, sizeLimit, pageSize}), ElementsAre(1, 20, 10));

    const char* const none[] = {nullptr};
    ASSERT_EQ(vexLdapSearchOpen(session.get(), nullptr, nullptr, "", none, 3, -1, 0, &search), VEX_OK);
    vexLdapSearchClose(search);
    EXPECT_EQ(domain + filter + base + attributes, "----") << "what is null or empty is absent";
    EXPECT_THAT((std::vector{scope, sizeLimit, pageSize}), ElementsAre(3, -1, 0));
}

TEST_F(Client, AScopeBeyondTheKnownOnesIsRefusedHere) {
    const UniqueSession session = openSession();
    vexSearchHandle* search = nullptr;
    for (const int scope : {-1, 4})
        EXPECT_EQ(vexLdapSearchOpen(session.get(), "", "", "", nullptr, scope, -1, 0, &search),
                  VEX_INVALID_ARGUMENT);
    EXPECT_EQ(openSearch(session.get(), nullptr), VEX_INVALID_ARGUMENT);
    EXPECT_EQ(agent.requests(), 0);
}

TEST_F(Client, ASearchOfOneBatchIsOneRoundTrip) {
    answerAll({.objects = {packed(person("ann"))}, .total = 1});
    const UniqueSession session = openSession();
    vexSearchHandle* search = nullptr;
    ASSERT_EQ(openSearch(session.get(), &search), VEX_OK);
    EXPECT_EQ(search->total, 1);
    EXPECT_EQ(search->isLastPage, 1);
    EXPECT_EQ(nextName(search), "ann");
    EXPECT_EQ(nextName(search), "code 7");
    EXPECT_EQ(nextName(search), "code 7");
    EXPECT_EQ(lastError(session.get()).code, VEX_NO_SUCH_ATTRIBUTE) << "the end is no failure";
    EXPECT_EQ(vexLdapSearchClose(search), VEX_OK);
    EXPECT_EQ(agent.requests(), 1) << "the agent holds nothing that would have to be closed";
    EXPECT_EQ(agent.connections(), 1);
}

// Batches of the given sizes, one after the other.
ScriptedAgent::Handler batches(std::vector<int> sizes) {
    auto state = std::make_shared<std::pair<std::size_t, int>>(0, 0);
    return [sizes = std::move(sizes), state](const Peer& peer, const wire::Request& request) {
        auto& [batch, total] = *state;
        Reply reply;
        for (int i = 0; i < sizes[batch]; ++i)
            reply.objects.push_back(packed(person("p" + std::to_string(total++))));
        ++batch;
        reply.total = total;
        reply.search = batch < sizes.size() ? 42 : 0;
        peer.answer(request, reply);
    };
}

TEST_F(Client, BatchesFollowEachOther) {
    agent.onRequest(batches({2, 0, 0, 1}));
    const UniqueSession session = openSession();
    vexSearchHandle* search = nullptr;
    ASSERT_EQ(openSearch(session.get(), &search), VEX_OK);
    EXPECT_EQ(search->isLastPage, 0);
    EXPECT_EQ(search->total, 2);
    EXPECT_EQ(nextName(search), "p0");
    EXPECT_EQ(nextName(search), "p1");
    EXPECT_EQ(agent.requests(), 1);
    EXPECT_EQ(nextName(search), "p2") << "empty batches are passed over";
    EXPECT_EQ(search->isLastPage, 1);
    EXPECT_EQ(search->total, 3);
    EXPECT_EQ(nextName(search), "code 7");
    EXPECT_EQ(vexLdapSearchClose(search), VEX_OK);
    EXPECT_THAT(agent.bodies(), ElementsAre("SearchOpen", "SearchNext", "SearchNext", "SearchNext"));
}

TEST_F(Client, AnObjectOutlivesSearchAndSession) {
    agent.onRequest(batches({2}));
    UniqueSession session = openSession();
    vexSearchHandle* search = nullptr;
    ASSERT_EQ(openSearch(session.get(), &search), VEX_OK);
    vexObject* object = nullptr;
    ASSERT_EQ(vexLdapSearchNext(search, &object), VEX_OK);
    vexLdapSearchClose(search);
    session.reset();
    EXPECT_EQ(valueOf(object, "cn"), "p0");
    vexFreeObject(object);
}

TEST_F(Client, AFailedSearchStaysFailed) {
    agent.onRequest([&](const Peer& peer, const wire::Request& request) {
        if (request.body_type() == wire::Body::SearchOpen)
            return peer.answer(request, {.objects = {packed(person("ann"))}, .search = 1});
        peer.answer(request, {.code = 12, .errSystem = 2, .errCode = -1, .errText = "no server"});
    });
    const UniqueSession session = openSession();
    vexSearchHandle* search = nullptr;
    ASSERT_EQ(openSearch(session.get(), &search), VEX_OK);
    EXPECT_EQ(nextName(search), "ann");
    EXPECT_EQ(nextName(search), "code 12");
    EXPECT_EQ(nextName(search), "code 12") << "never the end of the results";
    EXPECT_EQ(agent.requests(), 2) << "and not asked for again";
    const LastError error = lastError(session.get());
    EXPECT_EQ(error.code, VEX_OK);
    EXPECT_EQ(error.errSystem, VEX_ERR_LDAP);
    EXPECT_EQ(error.errCode, -1);
    EXPECT_EQ(error.text, "no server");
    vexLdapSearchClose(search);
}

TEST_F(Client, ASearchIsNotContinuedWhenItsAnswerWasLost) {
    agent.onRequest([&](const Peer& peer, const wire::Request& request) {
        if (request.body_type() == wire::Body::SearchOpen)
            return peer.answer(request, {.objects = {packed(person("ann"))}, .search = 1});
        peer.hangUp();
    });
    const UniqueSession session = openSession();
    vexSearchHandle* search = nullptr;
    ASSERT_EQ(openSearch(session.get(), &search), VEX_OK);
    EXPECT_EQ(nextName(search), "ann");
    EXPECT_EQ(nextName(search), "code 6");
    EXPECT_EQ(nextName(search), "code 6");
    EXPECT_EQ(agent.requests(), 2);
    EXPECT_EQ(vexLdapSearchClose(search), VEX_OK);
}

TEST_F(Client, TheAgentsTotalNeverFallsBehindWhatWasSeen) {
    answerAll({.objects = {packed(person("a")), packed(person("b"))}, .total = -5});
    const UniqueSession session = openSession();
    vexSearchHandle* search = nullptr;
    ASSERT_EQ(openSearch(session.get(), &search), VEX_OK);
    EXPECT_EQ(search->total, 2);
    vexLdapSearchClose(search);
}

// --------------------------------------------------- fetches and look-ups

TEST_F(Client, FetchAndLookUpGiveOneObject) {
    std::string seen;
    agent.onRequest([&](const Peer& peer, const wire::Request& request) {
        if (const auto* fetch = request.body_as_Fetch())
            seen = fetch->domain()->str() + " " + fetch->dn()->str();
        if (const auto* lookup = request.body_as_Lookup()) seen = lookup->guid()->str();
        peer.answer(request, {.objects = {packed(person("ann"))}});
    });
    const UniqueSession session = openSession();
    vexObject* object = nullptr;
    ASSERT_EQ(vexLdapFetch(session.get(), "example.com", "CN=ann", nullptr, &object), VEX_OK);
    EXPECT_EQ(seen, "example.com CN=ann");
    EXPECT_EQ(valueOf(UniqueObject(object).get(), "cn"), "ann");
    ASSERT_EQ(vexLookupObjectByGuid(session.get(), "1-2-3", &object), VEX_OK);
    EXPECT_EQ(seen, "1-2-3");
    EXPECT_EQ(valueOf(UniqueObject(object).get(), "cn"), "ann");
}

TEST_F(Client, AFailureLeavesThePlaceAsItWas) {
    const UniqueSession session = openSession();
    vexObject* object = nullptr;
    for (const int code : {9, 36}) {
        answerAll({.code = code});
        EXPECT_EQ(vexLookupObjectByGuid(session.get(), "x", &object), code);
        EXPECT_EQ(object, nullptr);
    }
    EXPECT_EQ(vexLdapFetch(session.get(), "", nullptr, nullptr, &object), VEX_INVALID_ARGUMENT);
    EXPECT_EQ(vexLookupObjectByGuid(session.get(), nullptr, &object), VEX_INVALID_ARGUMENT);
}

// ---------------------------------------------------------- authentication

TEST_F(Client, APasswordCheckGivesTheAgentsVerdict) {
    std::string seen;
    int code = 0;
    agent.onRequest([&](const Peer& peer, const wire::Request& request) {
        const auto& check = *request.body_as_Authenticate();
        seen = check.user()->str() + "/" + check.password()->str();
        peer.answer(request, {.code = code});
    });
    const UniqueSession session = openSession();
    for (const int verdict : {0, 13, 14, 15, 12}) {
        code = verdict;
        EXPECT_EQ(vexAuthValidatePlainTextUser(session.get(), "ann@EXAMPLE.COM", "se cret", 0), verdict);
        EXPECT_EQ(seen, "ann@EXAMPLE.COM/se cret");
    }
}

TEST_F(Client, ACheckWithoutUserOrPasswordAsksNobody) {
    const UniqueSession session = openSession();
    EXPECT_EQ(vexAuthValidatePlainTextUser(session.get(), nullptr, "p", 0), VEX_NO_SUCH_USER);
    EXPECT_EQ(vexAuthValidatePlainTextUser(session.get(), "", "p", 0), VEX_NO_SUCH_USER);
    EXPECT_EQ(vexAuthValidatePlainTextUser(session.get(), "u", nullptr, 0), VEX_WRONG_PASSWORD);
    EXPECT_EQ(vexAuthValidatePlainTextUser(session.get(), "u", "", 0), VEX_WRONG_PASSWORD);
    EXPECT_EQ(vexAuthValidatePlainTextUser(session.get(), "u", "p", 1), VEX_INVALID_ARGUMENT);
    EXPECT_EQ(agent.requests(), 0);
}

TEST_F(Client, AChangeOfAPasswordGivesTheAgentsVerdict) {
    std::string seen;
    int code = 0;
    agent.onRequest([&](const Peer& peer, const wire::Request& request) {
        const auto& change = *request.body_as_ChangePassword();
        seen = change.user()->str() + "/" + change.old_password()->str() + "/" + change.new_password()->str();
        peer.answer(request, {.code = code});
    });
    const UniqueSession session = openSession();
    for (const int verdict : {0, 13, 14, 15, 16, 4}) {
        code = verdict;
        EXPECT_EQ(vexAuthChangePassword(session.get(), "ann@EXAMPLE.COM", "old", "ne w"), verdict);
        EXPECT_EQ(seen, "ann@EXAMPLE.COM/old/ne w");
    }
}

TEST_F(Client, AChangeWithoutUserOrPasswordsAsksNobody) {
    const UniqueSession session = openSession();
    const std::string huge(wire::kMaxRequestBytes, 'x');
    for (const char* nothing : {static_cast<const char*>(nullptr), ""}) {
        EXPECT_EQ(vexAuthChangePassword(session.get(), nothing, "o", "n"), VEX_NO_SUCH_USER);
        EXPECT_EQ(vexAuthChangePassword(session.get(), "u", nothing, "n"), VEX_WRONG_PASSWORD);
        EXPECT_EQ(vexAuthChangePassword(session.get(), "u", "o", nothing), VEX_REFUSED);
    }
    EXPECT_EQ(vexAuthChangePassword(session.get(), "u", "o", huge.c_str()), VEX_REFUSED);
    EXPECT_EQ(vexAuthChangePassword(nullptr, "u", "o", "n"), VEX_BROKEN_HANDLE);
    EXPECT_EQ(agent.requests(), 0);
}

// --------------------------------------------------------------- diagnosis

TEST_F(Client, TheSupportedAttributesAreAStringSet) {
    answerAll({.names = {"cn", "", "sAMAccountName"}});
    const UniqueSession session = openSession();
    vexStringSet* names = nullptr;
    ASSERT_EQ(vexGetObjectSupportedAttributes(session.get(), &names), VEX_OK);
    const vex::UniqueStringSet owner(names);
    ASSERT_EQ(names->count, 3);
    EXPECT_STREQ(names->strings[0], "cn");
    EXPECT_STREQ(names->strings[1], "");
    EXPECT_STREQ(names->strings[2], "sAMAccountName");
    answerAll({});
    ASSERT_EQ(vexGetObjectSupportedAttributes(session.get(), &names), VEX_OK);
    EXPECT_EQ(names->count, 0);
    vexFreeStringSet(names);
    EXPECT_EQ(vexGetObjectSupportedAttributes(session.get(), nullptr), VEX_INVALID_ARGUMENT);
}

TEST_F(Client, HealthTellsTheConditionAndTheErrorBehindIt) {
    const UniqueSession session = openSession();
    int condition = -1, errSystem = -1, errCode = -1;
    char* text = nullptr;
    answerAll({.condition = 12, .errSystem = 3, .errCode = 77, .errText = "clock skew"});
    ASSERT_EQ(vexSystemHealthInfo(session.get(), 0, &condition, &errSystem, &errCode, &text), VEX_OK);
    EXPECT_THAT((std::vector{condition, errSystem, errCode}), ElementsAre(12, 3, 77));
    EXPECT_STREQ(text, "clock skew");
    vexFreeString(text);
    answerAll({});
    ASSERT_EQ(vexSystemHealthInfo(session.get(), 0, &condition, &errSystem, &errCode, &text), VEX_OK);
    EXPECT_THAT((std::vector{condition, errSystem, errCode}), ElementsAre(0, 0, 0));
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(vexSystemHealthInfo(session.get(), 1, &condition, nullptr, nullptr, nullptr),
              VEX_INVALID_ARGUMENT);
}

TEST_F(Client, AskingForHealthKeepsTheErrorThatItIsToExplain) {
    const UniqueSession session = openSession();
    vexObject* object = nullptr;
    answerAll({.code = 8, .errSystem = 2, .errCode = 51});
    ASSERT_EQ(vexLookupObjectByGuid(session.get(), "x", &object), 8);
    answerAll({});
    int condition;
    ASSERT_EQ(vexSystemHealthInfo(session.get(), 0, &condition, nullptr, nullptr, nullptr), VEX_OK);
    const LastError error = lastError(session.get());
    EXPECT_EQ(error.code, VEX_OK);
    EXPECT_EQ(error.errSystem, 2);
    EXPECT_EQ(error.errCode, 51);
    EXPECT_EQ(error.text, "none");
}

TEST_F(Client, TheLastErrorIsThatOfTheLastCall) {
    const UniqueSession session = openSession();
    vexObject* object = nullptr;
    EXPECT_EQ(lastError(session.get()).code, VEX_NO_SUCH_ATTRIBUTE) << "nothing has failed yet";
    answerAll({.code = 14});
    EXPECT_EQ(vexAuthValidatePlainTextUser(session.get(), "u", "p", 0), 14);
    EXPECT_EQ(lastError(session.get()).errSystem, VEX_ERR_AGENT) << "the code itself when no error is told";
    EXPECT_EQ(lastError(session.get()).errCode, 14);
    answerAll({.objects = {packed(person("ann"))}});
    ASSERT_EQ(vexLookupObjectByGuid(session.get(), "x", &object), VEX_OK);
    vexFreeObject(object);
    EXPECT_EQ(lastError(session.get()).code, VEX_NO_SUCH_ATTRIBUTE);
    answerAll({.code = 14});
    EXPECT_EQ(vexAuthValidatePlainTextUser(session.get(), "u", "p", 0), 14);
    answerAll({});
    vexSearchHandle* search = nullptr;
    ASSERT_EQ(vexLdapSearchOpen(session.get(), "", "", "", nullptr, 2, -1, 0, &search), VEX_OK);
    vexLdapSearchClose(search);
    EXPECT_EQ(lastError(session.get()).code, VEX_NO_SUCH_ATTRIBUTE) << "a search is a call like others";
    agent.stop();
    EXPECT_EQ(vexLookupObjectByGuid(session.get(), "x", &object), VEX_BROKEN_SESSION);
    EXPECT_EQ(lastError(session.get()).code, VEX_BROKEN_SESSION) << "it did not reach the agent";
}

// ------------------------------------------------------------------ limits

TEST_F(Client, WhatNoRequestCanHoldIsRefusedHere) {
    const UniqueSession session = openSession();
    const std::string huge(wire::kMaxRequestBytes, 'x');
    vexObject* object = nullptr;
    vexSearchHandle* search = nullptr;
    EXPECT_EQ(vexLookupObjectByGuid(session.get(), huge.c_str(), &object), VEX_REFUSED);
    EXPECT_EQ(vexAuthValidatePlainTextUser(session.get(), "u", huge.c_str(), 0), VEX_REFUSED);
    const std::string half(wire::kMaxRequestBytes / 2, 'x');
    EXPECT_EQ(vexLdapFetch(session.get(), half.c_str(), half.c_str(), nullptr, &object), VEX_REFUSED);
    EXPECT_EQ(vexLdapFetch(session.get(), half.c_str(), (half + "x").c_str(), nullptr, &object), VEX_REFUSED);
    EXPECT_EQ(vexAuthValidatePlainTextUser(session.get(), half.c_str(), (half + "x").c_str(), 0),
              VEX_REFUSED);
    std::vector<const char*> names(wire::kMaxRequestedAttributes + 1, "cn");
    names.push_back(nullptr);
    EXPECT_EQ(vexLdapSearchOpen(session.get(), "", "", "", names.data(), 2, -1, 0, &search), VEX_REFUSED);
    EXPECT_EQ(agent.requests(), 0);
    answerAll({.code = 9});
    EXPECT_EQ(vexLdapFetch(session.get(), "", half.c_str(), names.data() + 1, &object), 9)
        << "the largest allowed number of names, and a request of several sends";
}

// ------------------------------------------------------------------ forks

TEST_F(Client, AChildNeverUsesItsParentsConnection) {
    answerAll({.objects = {packed(person("ann"))}});
    const UniqueSession session = openSession();
    ASSERT_EQ(agent.connections(), 1);
    const pid_t child = ::fork();
    if (child == 0) {
        vexObject* object = nullptr;
        const vexCode code = vexLookupObjectByGuid(session.get(), "x", &object);
        ::_exit(code);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(agent.connections(), 2);
    vexObject* object = nullptr;
    EXPECT_EQ(vexLookupObjectByGuid(session.get(), "x", &object), VEX_OK);
    vexFreeObject(object);
    EXPECT_EQ(agent.connections(), 2) << "the parent's own is as good as before";
}

TEST_F(Client, AChildDoesNotKeepItsParentsConnectionOpen) {
    const UniqueSession session = openSession();
    int hold[2];
    ASSERT_EQ(::pipe(hold), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        char byte;
        ::close(hold[1]);
        ::_exit(::read(hold[0], &byte, 1) == 0 ? 0 : 1);
    }
    // A call that gets no answer makes the parent drop its connection.
    vexObject* object = nullptr;
    EXPECT_EQ(vexLookupObjectByGuid(session.get(), "x", &object), VEX_BROKEN_SESSION);
    EXPECT_TRUE(agent.eventually([&] { return agent.openConnections() == 0; }));
    ::close(hold[0]);
    ::close(hold[1]);
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(Client, AChildsSearchOfItsParentIsBroken) {
    answerAll({.search = 5});
    const UniqueSession session = openSession();
    vexSearchHandle* search = nullptr;
    ASSERT_EQ(openSearch(session.get(), &search), VEX_OK);
    const pid_t child = ::fork();
    if (child == 0) {
        vexObject* object = nullptr;
        const vexCode next = vexLdapSearchNext(search, &object);
        const vexCode close = vexLdapSearchClose(search);
        ::_exit(next == VEX_BROKEN_SESSION && close == VEX_OK ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_THAT(agent.bodies(), ElementsAre("SearchOpen"));
    vexLdapSearchClose(search);
}

// ---------------------------------------------------------------- threads

TEST_F(Client, ThreadsDoNotGetEachOthersAnswers) {
    agent.onRequest([](const Peer& peer, const wire::Request& request) {
        peer.answer(request, {.objects = {packed(person(request.body_as_Lookup()->guid()->str()))}});
    });
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                const UniqueSession session = openSession();
                const std::string name = std::to_string(t) + "-" + std::to_string(i);
                vexObject* object = nullptr;
                if (vexLookupObjectByGuid(session.get(), name.c_str(), &object) != VEX_OK) {
                    ++wrong;
                    continue;
                }
                if (valueOf(UniqueObject(object).get(), "cn") != name) ++wrong;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_LE(agent.connections(), 8);
}

}  // namespace
}  // namespace vextest
