// SPDX-License-Identifier: Apache-2.0
// Hooks are called with slapd's records, whose headers come last.
#include <gmock/gmock.h>

#include <stdexcept>

#include "auth/credentials.h"
#include "auth/lutil_faults_testing.h"
#include "backend/base/settings.h"
#include "tests/standin/captured.h"
#include "tests/standin/vex_standin.h"

#include "auth/bind.h"
#include "auth/binder.h"
#include "tests/standin/slapd_standin.h"

namespace {

using namespace std::string_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr const char* kDn = "CN=ann,DC=x";
std::time_t theTime;
std::int64_t theMicroseconds;

class Bind : public testing::Test {
  protected:
    void SetUp() override {
        theTime = 1000;
        theMicroseconds = 0;
        standin::reset();
        standin::resetSlapd();
        lutilFaults() = {};
        standin::user(kDn, "secret");
        standin::supported({"cn"});
        back_vex_creds = new CredManager([] { return theTime; });
    }
    void TearDown() override {
        delete back_vex_creds;
        back_vex_creds = nullptr;
        vexFreeStringSet(gSupportedObjectAttrList.exchange(nullptr));
        EXPECT_THAT(standin::leaks(), IsEmpty());
        EXPECT_THAT(standin::failures(), IsEmpty());
        gCredExpire = 300;
        gLogInterval = 0;
        gPreferCacheAuth = true;
        slap_debug = 0;
    }

    int bind(const char* dn, const char* password, unsigned long connection = 7) {
        return bindWith(dn, password, connection);
    }
    int bind(const std::string& dn, const std::string& password) { return bindWith(dn, password, 7); }

    template <typename Text>
    int bindWith(const Text& dn, const Text& password, unsigned long connection) {
        standin::FakeConnection client(connection);
        standin::FakeOperation operation(client);
        operation.bind(dn, password);
        standin::forgetCalls();
        const int result = binder.bind(operation.op(), operation.reply());
        sent = client.sent();
        return result;
    }

    // The one result that the client was sent.
    void expectSent(int code, const std::string& text) {
        ASSERT_EQ(sent.size(), 1u);
        EXPECT_EQ(sent[0].code, code);
        EXPECT_EQ(sent[0].text, text);
    }

    vorn::ReaderWriterLock lock;
    BindStatistics statistics{lock, [] { return theTime; }};
    Binder binder{statistics, [] { return theMicroseconds; }};
    std::vector<standin::Sent> sent;
};

TEST_F(Bind, TheFirstBindAsksTheAgentAndSendsNothing) {
    EXPECT_EQ(bind(kDn, "secret"), 0);
    EXPECT_THAT(standin::calls(),
                ElementsAre("vexSessionOpen(1, 21)", "vexGetObjectSupportedAttributes(session1)",
                            "vexSetOption(session1, 256, 1)", "vexSetOption(session1, 4096, 1)",
                            "vexAuthValidatePlainTextUser(session1, \"CN=ann,DC=x\", \"secret\", 0)",
                            "vexSessionClose(session1)"));
    EXPECT_THAT(sent, IsEmpty());
    ASSERT_NE(gSupportedObjectAttrList.load(), nullptr);
    EXPECT_STREQ(gSupportedObjectAttrList.load()->strings[0], "cn");
}

TEST_F(Bind, TheAttributesAreFetchedOnce) {
    bind(kDn, "secret");
    EXPECT_EQ(bind(kDn, "other"), 49);
    EXPECT_THAT(standin::requests(),
                ElementsAre("vexSessionOpen(1, 21)", "vexSetOption(session2, 256, 1)",
                            "vexSetOption(session2, 4096, 1)",
                            "vexAuthValidatePlainTextUser(session2, \"CN=ann,DC=x\", "
                            "\"other\", 0)",
                            "vexSystemHealthInfo(session2, 0)", "vexSessionClose(session2)"));
}

TEST_F(Bind, WithoutThePreferenceNoOptionIsSet) {
    gPreferCacheAuth = false;
    EXPECT_EQ(bind(kDn, "secret"), 0);
    EXPECT_THAT(standin::calls(),
                ElementsAre("vexSessionOpen(1, 21)", "vexGetObjectSupportedAttributes(session1)",
                            "vexAuthValidatePlainTextUser(session1, \"CN=ann,DC=x\", \"secret\", 0)",
                            "vexSessionClose(session1)"));
}

TEST_F(Bind, AnOptionThatFailsDoesNotStopIt) {
    standin::answerAlways("vexSetOption", VEX_NOT_SUPPORTED);
    EXPECT_EQ(bind(kDn, "secret"), 0);
}

TEST_F(Bind, SaysWhatItDoes) {
    standin::CapturedStderr captured;
    slap_debug = 1;
    bind(kDn, "secret");
    bind(kDn, "secret", 8);
    EXPECT_EQ(
        captured.text(),
        "vex bind : called for dn: CN=ann,DC=x, with id: 7\n"
        "vex bind : Cache credential for 'CN=ann,DC=x' creation success\n"
        "vex bind : called for dn: CN=ann,DC=x, with id: 8\n"
        "vex bind : User 'CN=ann,DC=x' authenticated, validated against cached credential.\n"
        "vex bind : Active authenticated binding available for dn 'CN=ann,DC=x', no need to do re-auth.\n");
}

TEST_F(Bind, ARepeatedBindIsAnsweredWithoutTheAgent) {
    bind(kDn, "secret", 1);
    EXPECT_EQ(bind(kDn, "secret", 2), 0);
    EXPECT_THAT(standin::calls(), IsEmpty());
    EXPECT_THAT(sent, IsEmpty());
    // The second connection keeps the credential alive.
    back_vex_creds->delCreds(1);
    EXPECT_EQ(bind(kDn, "secret", 3), 0);
    EXPECT_THAT(standin::calls(), IsEmpty());
}

TEST_F(Bind, AnExpiredCredentialIsValidatedAnew) {
    bind(kDn, "secret");
    theTime = 1300;
    EXPECT_EQ(bind(kDn, "secret"), 0);
    EXPECT_EQ(standin::requests().front(), "vexSessionOpen(1, 21)");
    theTime = 1599;
    EXPECT_EQ(bind(kDn, "secret"), 0);
    EXPECT_THAT(standin::calls(), IsEmpty());
}

TEST_F(Bind, AnotherSpellingOfTheDnAsksTheAgent) {
    bind(kDn, "secret");
    standin::user("cn=ann,DC=x", "secret");
    EXPECT_EQ(bind("cn=ann,DC=x", "secret"), 0);
    EXPECT_THAT(standin::calls(), Contains("vexSessionOpen(1, 21)"));
}

TEST_F(Bind, WithoutADnTheAgentDecides) {
    standin::CapturedStderr captured;
    slap_debug = 1;
    EXPECT_EQ(bind(nullptr, "secret"), 49);
    EXPECT_THAT(standin::calls(), Contains("vexAuthValidatePlainTextUser(session1, null, \"secret\", 0)"));
    EXPECT_EQ(captured.text(),
              "vex bind : called for dn: None Set, with id: 7\n"
              "vexAuth : cannot bind to server due to invalid user or password.\n");
    expectSent(49, "vexAuth : cannot bind to server due to invalid user or password.");
}

TEST_F(Bind, WithoutADnNothingIsCached) {
    standin::acceptEveryone(true);
    EXPECT_EQ(bind(nullptr, "secret"), 0);
    EXPECT_EQ(bind(nullptr, "secret"), 0);
    EXPECT_EQ(standin::requests().back(), "vexSessionClose(session2)");
}

TEST_F(Bind, WhileAllTurnsAreTakenOnlyWhatIsRememberedIsAnswered) {
    connection_pool_max = 2;
    bind(kDn, "secret");
    int remembered = -1;
    int refused = -1;
    standin::onCall("vexAuthValidatePlainTextUser", [&] {
        standin::onCall("vexAuthValidatePlainTextUser", nullptr);
        remembered = bind(kDn, "secret");
        refused = bind(kDn, "other");
    });
    EXPECT_EQ(bind(kDn, "wrong"), 49);
    EXPECT_EQ(remembered, 0);
    EXPECT_NE(refused, 0);
    expectSent(49, "vexAuth : cannot bind to server due to invalid user or password.");
    standin::onCall("vexAuthValidatePlainTextUser", [&] {
        standin::onCall("vexAuthValidatePlainTextUser", nullptr);
        bind(kDn, "other");
        expectSent(51, "vex dirgate: too many requests wait for the agent");
    });
    bind(kDn, "wrong");
}

// What the agent, or the credential cache, would read of such a text is its beginning.
TEST_F(Bind, ANulMakesANameNobodysAndAPasswordWrong) {
    const struct {
        std::string dn;
        std::string password;
    } cases[] = {{"CN=ann,DC=x\0"s, "secret"},  {"CN=ann,DC=x\0,DC=y"s, "secret"},
                 {"CN=ann\\00,DC=x", "secret"}, {kDn, "secret\0"s},
                 {kDn, "secret\0junk"s},        {kDn, "\0"s}};
    const char* const wrong = "vexAuth : cannot bind to server due to invalid user or password.";
    standin::user("CN=ann\\00,DC=x", "secret");
    for (const bool known : {false, true}) {
        if (known) bind(kDn, "secret");  // from here on the credential cache would answer
        for (const auto& [dn, password] : cases) {
            EXPECT_EQ(bind(dn, password), 49) << dn;
            expectSent(49, wrong);
            EXPECT_THAT(standin::requests(), Not(Contains(HasSubstr("vexAuth"))));
        }
    }
    EXPECT_EQ(bind(kDn, "secret"), 0) << "what was kept still vouches";
}

TEST_F(Bind, AnAbsentPasswordIsPassedOnAndNeverVouchedFor) {
    bind(kDn, "secret");
    EXPECT_EQ(bind(kDn, nullptr), 49);
    EXPECT_THAT(standin::calls(),
                Contains("vexAuthValidatePlainTextUser(session2, \"CN=ann,DC=x\", null, 0)"));
    standin::acceptEveryone(true);
    EXPECT_EQ(bind("CN=bob,DC=x", nullptr), 0);
    EXPECT_EQ(back_vex_creds->doCacheAuth("CN=bob,DC=x", ""), 0);
}

TEST_F(Bind, ASessionThatCannotBeOpenedIsUnavailableAndNotClosed) {
    const struct {
        int code;
        const char* text;
    } cases[] = {
        {6, "vexAuth : Failed to communicate with vexagent due to broken session handle"},
        {32, "vexAuth : Failed to communicate with vexagent due to broken session handle"},
        {3, "vexAuth : Failed to retrieve last system error, due to broken session handle."},
    };
    for (const auto& [code, text] : cases) {
        standin::answer("vexSessionOpen", code);
        EXPECT_EQ(bind(kDn, "secret"), 52);
        expectSent(52, text);
        EXPECT_EQ(standin::calls().front(), "vexSessionOpen(1, 21)");
        EXPECT_THAT(standin::calls(), testing::Not(Contains(HasSubstr("vexSessionClose"))));
    }
}

TEST_F(Bind, AttributesThatCannotBeFetchedAreTriedAgainByTheNextBind) {
    standin::answer("vexGetObjectSupportedAttributes", VEX_BROKEN_SESSION);
    EXPECT_EQ(bind(kDn, "secret"), 52);
    expectSent(52,
               "vexGetObjectSupportedAttributes : Failed to communicate with vexagent due to broken session "
               "handle");
    EXPECT_THAT(standin::calls(),
                ElementsAre("vexSessionOpen(1, 21)", "vexGetObjectSupportedAttributes(session1)",
                            "vexSessionClose(session1)"));
    EXPECT_EQ(gSupportedObjectAttrList.load(), nullptr);
    EXPECT_EQ(bind(kDn, "secret"), 0);
    EXPECT_NE(gSupportedObjectAttrList.load(), nullptr);
}

TEST_F(Bind, AttributesFailWithWhateverTheAgentSays) {
    standin::answer("vexGetObjectSupportedAttributes", VEX_DIRECTORY_ERROR);
    standin::protocolError(2, 53, "no");
    EXPECT_EQ(bind(kDn, "secret"), 52);
    expectSent(53,
               "vexGetObjectSupportedAttributes :directory error (vexRC=8), errSystem=LDAP, errCode=53, "
               "errString=no");
    EXPECT_EQ(standin::requests().back(), "vexSessionClose(session1)");
}

TEST_F(Bind, TheAttributesThatAnotherBindHasPublishedStay) {
    standin::onCall("vexGetObjectSupportedAttributes", [] {
        if (gSupportedObjectAttrList.load() != nullptr) return;
        vexSession* session = nullptr;
        vexStringSet* first = nullptr;
        vexSessionOpen(1, 21, &session);
        standin::onCall("vexGetObjectSupportedAttributes", [] {});
        vexGetObjectSupportedAttributes(session, &first);
        vexSessionClose(session);
        gSupportedObjectAttrList = first;
    });
    EXPECT_EQ(bind(kDn, "secret"), 0);
    EXPECT_THAT(standin::calls(), Contains("vexFreeStringSet(set2)"));
    EXPECT_THAT(standin::leaks(), ElementsAre("set1"));
}

TEST_F(Bind, ARefusedPasswordIsInvalidCredentials) {
    for (int code : {13, 14}) {
        standin::answer("vexAuthValidatePlainTextUser", code);
        EXPECT_EQ(bind(kDn, "secret"), 49);
        expectSent(49, "vexAuth : cannot bind to server due to invalid user or password.");
        EXPECT_THAT(standin::requests().back(), HasSubstr("vexSessionClose"));
    }
}

TEST_F(Bind, AnUnhealthyAgentsRefusalIsSentAsUnavailable) {
    standin::health(12, 2, -1);
    EXPECT_EQ(bind(kDn, "wrong"), 49);
    expectSent(52,
               "vexAuth :System is unhealthy(cc=12), reason:unavailable, errSystem=LDAP, errCode=-1, "
               "errString=<No Message>");
}

TEST_F(Bind, AnyOtherFailureReturnsInvalidCredentialsToo) {
    standin::answer("vexAuthValidatePlainTextUser", VEX_BROKEN_SESSION);
    EXPECT_EQ(bind(kDn, "secret"), 49);
    expectSent(52, "vexAuth : Failed to communicate with vexagent due to broken session handle");
    standin::answer("vexAuthValidatePlainTextUser", VEX_ACCOUNT_REFUSED);
    standin::protocolError(3, 7, "locked");
    EXPECT_EQ(bind(kDn, "secret"), 49);
    expectSent(80, "vexAuth :account refused (vexRC=15), errSystem=Kerberos, errCode=7, errString=locked");
}

TEST_F(Bind, AFailuresTextHasAtMost510Characters) {
    standin::answer("vexAuthValidatePlainTextUser", VEX_ACCOUNT_REFUSED);
    standin::protocolError(3, 7, std::string(1000, 'x'));
    EXPECT_EQ(bind(kDn, "secret"), 49);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].text.size(), 510u);
}

TEST_F(Bind, AFailedBindLeavesTheCacheAlone) {
    bind(kDn, "secret");
    EXPECT_EQ(bind(kDn, "wrong", 8), 49);
    EXPECT_EQ(back_vex_creds->doCacheAuth(kDn, "wrong"), 0);
    EXPECT_EQ(back_vex_creds->doCacheAuth(kDn, "secret"), 1000);
    back_vex_creds->delCreds(7);  // the failed connection was not listed
    EXPECT_EQ(back_vex_creds->doCacheAuth(kDn, "secret"), 0);
}

TEST_F(Bind, WithoutASaltTheBindStillSucceeds) {
    standin::CapturedStderr captured;
    lutilFaults().entropyFails = true;
    EXPECT_EQ(bind(kDn, "secret"), 0);
    EXPECT_EQ(captured.text(), "dirgate ERROR: vex bind : Salt generation failed\n");
    EXPECT_EQ(back_vex_creds->doCacheAuth(kDn, "secret"), 0);
}

TEST_F(Bind, CountsAndWritesItsStatistics) {
    gLogInterval = 60;
    standin::onCall("vexAuthValidatePlainTextUser", [] { theMicroseconds += 25500; });
    bind(kDn, "secret");
    bind(kDn, "secret");
    bind(kDn, "wrong");
    standin::answer("vexSessionOpen", 6);
    bind("CN=bob,DC=x", "secret");
    EXPECT_EQ(statistics.counters().total, 4u);
    EXPECT_EQ(statistics.counters().fromCache, 1u);
    EXPECT_EQ(statistics.counters().fromAgent, 1u);
    EXPECT_EQ(statistics.counters().averageMilliseconds, 25u);

    standin::CapturedStderr captured;
    slap_debug = 1;
    theTime = 1060;
    bind(kDn, "wrong");  // a failed bind writes no line
    EXPECT_THAT(captured.text(), testing::Not(HasSubstr("auth total")));
    bind(kDn, "secret");
    EXPECT_THAT(captured.text(),
                HasSubstr("re-auth.\nauth total: 6, success from cache: 2, success from vexagent: "
                          "1, success from vexagent average time: 25ms, auth failed: 3\n"));
}

// A gateway whose binds are all first ones tells of them, too.
TEST_F(Bind, WritesItsStatisticsAfterABindThatTheAgentAnswered) {
    gLogInterval = 60;
    standin::user("CN=bob,DC=x", "secret");
    bind(kDn, "secret");
    theTime = 1060;
    standin::CapturedStderr captured;
    slap_debug = 1;
    bind("CN=bob,DC=x", "secret");
    EXPECT_THAT(
        captured.text(),
        HasSubstr("creation success\nauth total: 2, success from cache: 0, success from vexagent: 2, "));
}

// From before the session is opened until it is closed; what it takes to remember the
// password is not the agent's.
TEST_F(Bind, MeasuresTheAgentFromOpeningToClosing) {
    gLogInterval = 60;
    delete back_vex_creds;
    back_vex_creds = new CredManager([] {
        theMicroseconds += 1'000'000;
        return theTime;
    });
    lutilFaults().onHash = [] { theMicroseconds += 2'000'000; };
    for (const char* call : {"vexSessionOpen", "vexSessionClose"}) {
        standin::onCall(call, [] { theMicroseconds += 10'000; });
    }
    bind(kDn, "secret");
    EXPECT_EQ(statistics.counters().averageMilliseconds, 20u);
}

TEST_F(Bind, AllowsCachedAuthenticationAlsoWhereItCannotBePreferred) {
    standin::answer("vexSetOption", VEX_NOT_SUPPORTED);
    EXPECT_EQ(bind(kDn, "secret"), 0);
    EXPECT_THAT(standin::requests(), Contains("vexSetOption(session1, 256, 1)"));
    EXPECT_THAT(standin::requests(), Contains("vexSetOption(session1, 4096, 1)"));
}

TEST_F(Bind, AnEmptyDnIsADnLikeAnyOther) {
    standin::user("", "secret");
    EXPECT_EQ(bind("", "secret"), 0);
    EXPECT_EQ(bind("", "secret"), 0);
    EXPECT_THAT(standin::requests(), IsEmpty()) << "the second is answered from the cache";
}

TEST_F(Bind, WithoutAnIntervalNothingIsCountedButThePeriodStarts) {
    statistics.setCounters({5, 5, 5, 5});
    bind(kDn, "secret");
    bind(kDn, "secret");
    EXPECT_EQ(statistics.counters().total, 0u);
    EXPECT_EQ(statistics.counters().fromAgent, 0u);
    gLogInterval = 60;  // the next line was due at once, since the period started without an interval
    standin::CapturedStderr captured;
    slap_debug = 1;
    bind(kDn, "secret");
    EXPECT_THAT(captured.text(),
                HasSubstr("auth total: 1, success from cache: 1, success from vexagent: 0, success "
                          "from vexagent average time: 0ms, auth failed: 0\n"));
}

// slapd's own entry, with the process's clocks.
TEST_F(Bind, TheHookAnswersAndLetsNothingThrow) {
    standin::FakeConnection client(7);
    standin::FakeOperation operation(client);
    operation.bind(kDn, "secret");
    EXPECT_EQ(vex_back_bind(operation.op(), operation.reply()), 0);
    EXPECT_THAT(client.sent(), IsEmpty());

    standin::onCall("vexAuthValidatePlainTextUser", [] { throw std::runtime_error("out of luck"); });
    standin::FakeOperation second(client);
    second.bind("CN=bob,DC=x", "secret");
    standin::CapturedStderr captured;
    EXPECT_EQ(vex_back_bind(second.op(), second.reply()), 80);
    EXPECT_EQ(captured.text(), "dirgate ERROR: vex bind : out of luck\n");
    ASSERT_EQ(client.sent().size(), 1u);
    EXPECT_EQ(client.sent()[0].code, 80);
    EXPECT_EQ(client.sent()[0].text, "internal error");
}

}  // namespace
