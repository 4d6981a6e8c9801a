// SPDX-License-Identifier: Apache-2.0
// Who logs in, and who does not.

#include "agent/ad/logins.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <krb5.h>
#include <sys/stat.h>

#include "agent/ad/forest_testing.h"
#include "agent/directory/log_testing.h"
#include "vorn/temporary_folder_testing.h"

namespace vexagent {
namespace {

using test::kPeople;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::SizeIs;

std::time_t hostTime = 0;

constexpr LoginOptions kNever{};
constexpr LoginOptions kAfterTrying{false, true};
constexpr LoginOptions kRatherThanTrying{true, true};

class LoginsTest : public ::testing::TestWithParam<Transport> {
  protected:
    LoginsTest() : m_far(m_forest.addDomain("far.example.com", "FAR")) {
        hostTime = 1'700'000'000;
        m_ann = m_forest.addPerson("ann", {{"uid", {"annie"}}});
        m_ben = m_forest.addPerson("ben");
        m_far.add(m_eve, {{"objectClass", {"user"}}, {"cn", {"eve"}}, {"sAMAccountName", {"eve"}}});
        m_far.setPassword(m_eve, "eve", "eve");
        m_forest.options.transport = GetParam();
        m_forest.options.clock = [] { return hostTime; };
    }
    void remember() {
        m_forest.options.authCache.enabled = true;
        m_forest.options.authCache.file = m_folder.file("logins");
        m_forest.options.authCache.maxAge = std::chrono::hours(1);
        m_forest.options.authCache.attempts = 3;
    }
    Logins& logins() {
        if (!m_logins) m_logins.emplace(m_forest.network, m_forest.options, m_domains);
        return *m_logins;
    }
    bool isBind() const { return GetParam() != Transport::Gssapi; }
    // "yes", or the code and the whole reason.
    std::string login(const std::string& user, const std::string& password, LoginOptions options = kNever) {
        const Verdict verdict = logins().authenticate(user, password, options);
        if (verdict.accepted()) return "yes";
        return std::to_string(verdict.code()) + " " + verdict.result().whole();
    }
    // Whose passwords were asked about since the last call, by DN or account.
    std::vector<std::string> shown() {
        std::vector<std::string> all;
        for (const Exchange& exchange : m_forest.network.takeExchanges())
            if (exchange.kind == Exchange::Kind::Bind || exchange.kind == Exchange::Kind::Kdc)
                all.push_back(exchange.who);
        return all;
    }
    // What was asked since the last call, without names.
    std::string conversation() {
        std::string text;
        for (const Exchange& exchange : m_forest.network.takeExchanges())
            text += std::to_string(static_cast<int>(exchange.kind)) + ":" +
                    std::to_string(exchange.searches.size()) + " ";
        return text;
    }
    void refuse(const std::string& dn, const std::string& account, const char* data, int code) {
        m_forest.domain.refuseBind(dn, {LDAP_INVALID_CREDENTIALS, std::string("data ") + data});
        m_forest.domain.refuseKdc(account, {code, "refused"});
    }
    void setDown(bool down) {
        m_forest.domain.answers = !down;
        m_forest.domain.countsAsDown = down;
    }
    void pass(std::chrono::seconds time) {
        hostTime += time.count();
        m_forest.network.time.advance(time);
    }

    vorn::test::TemporaryFolder m_folder;
    test::ExampleForest m_forest;
    FakeDomain& m_far;
    std::string m_ann, m_ben;
    const std::string m_eve = "CN=eve,DC=far,DC=example,DC=com";
    Domains m_domains{m_forest.network, m_forest.options};
    std::optional<Logins> m_logins;
};

INSTANTIATE_TEST_SUITE_P(Transports, LoginsTest,
                         ::testing::Values(Transport::Gssapi, Transport::StartTls, Transport::Ldaps),
                         [](const auto& transport) {
                             return transport.param == Transport::Gssapi     ? "Gssapi"
                                    : transport.param == Transport::StartTls ? "StartTls"
                                                                             : "Ldaps";
                         });

// ---------------------------------------------------------------------- names

TEST_P(LoginsTest, TheRightPasswordUnderAnyOfTheNames) {
    for (const std::string& name : {m_ann, std::string("cn=annie,") + kPeople, std::string("ann@example.com"),
                                    std::string("EXAMPLE\\ann")}) {
        EXPECT_EQ(login(name, "ann"), "yes") << name;
        EXPECT_EQ(login(name, "wrong"), "14 wrong password") << name;
        EXPECT_THAT(shown(), ElementsAre(isBind() ? m_ann : "ann", isBind() ? m_ann : "ann")) << name;
    }
}

TEST_P(LoginsTest, WithoutANameOrAPasswordNobodyIsAsked) {
    EXPECT_EQ(login("", "ann"), "13 no such user");
    EXPECT_EQ(login(m_ann, ""), "14 wrong password");
    EXPECT_EQ(login(m_ann, std::string("ann\0", 4)), "14 wrong password");
    EXPECT_THAT(m_forest.network.exchanges, IsEmpty());
}

TEST_P(LoginsTest, ADnOfAnotherDomainLogsInThere) {
    EXPECT_EQ(login(m_eve, "eve"), "yes");
    EXPECT_EQ(m_forest.network.exchanges.back().place, "far.example.com");
    EXPECT_EQ(login("CN=eve,DC=evil,DC=test", "eve"), "13 no such user");
}

TEST_P(LoginsTest, WhereOtherDomainsCannotBeAskedForThatIsTold) {
    m_forest.domain.answers = false;
    EXPECT_EQ(login(m_eve, "eve"), "12 the joined domain cannot be asked which domains there are");
}

// One's own name may be another's rewritten one, or both be rewritten: then it is nobody's,
// whosever password is given, and the log says whose it could be.
TEST_P(LoginsTest, WhomOneNameMeansTogetherLogInByTheirOthers) {
    const std::string one = m_forest.addPerson("one"), two = m_forest.addPerson("two", {{"uid", {"one"}}});
    const std::string three = m_forest.addPerson("three", {{"uid", {"both"}}});
    const std::string four = m_forest.addPerson("four", {{"uid", {"both"}}});
    for (const char* name : {"two", "three", "four"}) {
        EXPECT_EQ(login("cn=" + std::string(name) + "," + kPeople, name), "yes");
        EXPECT_EQ(login("cn=" + std::string(name) + "," + kPeople, "wrong"), "14 wrong password");
    }
    EXPECT_EQ(login("one@example.com", "one"), "yes");
    for (const char* password : {"one", "two", "three", "four"}) {
        EXPECT_EQ(login("cn=one," + std::string(kPeople), password),
                  "14 the name means more than one object: " + one + "; " + two);
        EXPECT_EQ(login("cn=both," + std::string(kPeople), password),
                  "14 the name means more than one object: " + three + "; " + four);
    }
}

TEST_P(LoginsTest, AClientIsNotToldThatANameMeansTwo) {
    m_forest.addPerson("cleo", {{"uid", {"ben"}}});
    EXPECT_EQ(logins().authenticate(m_ben, "cleo", kNever).result().errText, "wrong password");
    EXPECT_THAT(shown(), SizeIs(1));
}

TEST_P(LoginsTest, AnObjectThatIsNoAccountIsNobody) {
    m_forest.domain.add("CN=box," + std::string(kPeople), {{"objectClass", {"container"}}});
    EXPECT_EQ(login("CN=box," + std::string(kPeople), "box"), "13 no such user");
}

// ------------------------------------------------------------ who does not exist

TEST_P(LoginsTest, ForNobodyAPasswordThatIsNobodysIsAskedAbout) {
    EXPECT_EQ(login("nobody@example.com", "secret"), "13 no such user");
    const std::vector<std::string> asked = shown();
    ASSERT_THAT(asked, SizeIs(1));
    // Of 128 bits that nobody guesses.
    EXPECT_THAT(asked[0],
                MatchesRegex(isBind() ? "CN=nobody(-[0-9]+){4},DC=example,DC=com" : "nobody(-[0-9]+){4}"));
    login("nobody@example.com", "secret");
    EXPECT_NE(shown(), asked);  // another one each time
}

// Notes which passwords are shown to a domain.
class WatchedNetwork : public FakeNetwork {
  public:
    Expected<Accepted, LdapFailure> bind(const Place& place, const std::string& dn,
                                         const std::string& password, const Deadline& deadline) override {
        passwords.push_back(password);
        return FakeNetwork::bind(place, dn, password, deadline);
    }
    Expected<Accepted, KdcFailure> askKdc(const Place& place, const std::string& account,
                                          const std::string& password, const Deadline& deadline) override {
        passwords.push_back(password);
        return FakeNetwork::askKdc(place, account, password, deadline);
    }
    std::vector<std::string> passwords;
};

TEST_P(LoginsTest, NobodysPasswordGoesToSomebodyWhoDoesNotExist) {
    WatchedNetwork network;
    network.addDomain("example.com");
    Domains domains(network, m_forest.options);
    Logins logins(network, m_forest.options, domains);
    EXPECT_EQ(logins.authenticate("nobody@example.com", "my secret", kNever).code(), VEX_NO_SUCH_USER);
    EXPECT_THAT(network.passwords, ElementsAre("xxxxxxxxx"));
}

// Should somebody have that very password: it is refused all the same.
TEST_P(LoginsTest, WhatIsAskedInVainLetsNobodyIn) {
    struct Lax : WatchedNetwork {
        Expected<Accepted, LdapFailure> bind(const Place& place, const std::string&, const std::string&,
                                             const Deadline& deadline) override {
            return FakeNetwork::bind(place, "CN=ann,DC=example,DC=com", "ann", deadline);
        }
        Expected<Accepted, KdcFailure> askKdc(const Place& place, const std::string&, const std::string&,
                                              const Deadline& deadline) override {
            return FakeNetwork::askKdc(place, "ann", "ann", deadline);
        }
    };
    Lax network;
    network.addDomain("example.com").setPassword("CN=ann,DC=example,DC=com", "ann", "ann");
    Domains domains(network, m_forest.options);
    Logins logins(network, m_forest.options, domains);
    EXPECT_EQ(logins.authenticate("nobody@example.com", "xxx", kNever).code(), VEX_NO_SUCH_USER);
}

TEST_P(LoginsTest, WhatIsAskedTellsNobodyWhoExists) {
    m_forest.addPerson("cleo", {{"uid", {"both"}}});
    m_forest.addPerson("dora", {{"uid", {"both"}}});
    login(m_ann, "wrong");
    conversation();
    login(m_ann, "wrong");
    const std::string wrong = conversation();
    for (const char* name : {"nobody", "both"}) {
        login("CN=" + std::string(name) + "," + kPeople, "wrong");
        EXPECT_EQ(conversation(), wrong) << name;
    }
}

TEST_P(LoginsTest, WhatFailsOnTheWayIsToldForNobodyToo) {
    login(m_ann, "ann");
    for (const std::string& name : {m_ann, std::string("CN=nobody,") + kPeople}) {
        m_forest.domain.next(Mishap::failOver(Mishap::When::Before));
        m_forest.domain.next(Mishap::fail(Mishap::When::Before, Mishap::unreachable()));
        EXPECT_EQ(login(name, "secret").substr(0, 2), "12") << name;
    }
}

// ------------------------------------------------------------------- accounts

TEST_P(LoginsTest, WhyAnAccountIsRefusedIsToldAsFarAsThePasswordWasSeen) {
    refuse(m_ann, "ann", "533", KRB5KDC_ERR_CLIENT_REVOKED);
    m_forest.change(m_ann, "userAccountControl", "514");
    const Verdict verdict = logins().authenticate(m_ann, "ann", kNever);
    EXPECT_EQ(verdict.result().whole(), "the account is disabled");
    EXPECT_EQ(verdict.code(), isBind() ? VEX_ACCOUNT_REFUSED : VEX_WRONG_PASSWORD);
    EXPECT_EQ(verdict.result().errText, isBind() ? "the account is disabled" : "wrong password");
}

TEST_P(LoginsTest, AnExpiredAccountIsOneByTheHostsClock) {
    m_forest.domain.refuseKdc("ann", {KRB5KDC_ERR_CLIENT_REVOKED, "revoked"});
    m_forest.change(m_ann, "accountExpires", "133444736000000000");  // 1700000000
    if (isBind()) return;
    EXPECT_EQ(login(m_ann, "ann"), "14 the account has expired");
    hostTime -= 1;
    EXPECT_EQ(login(m_ann, "ann"), "14 the account may not log in now");
}

TEST_P(LoginsTest, AStateThatCannotBeReadRefusesTheRightPassword) {
    const Attribute states[] = {{"userAccountControl", {"0x202"}},
                                {"userAccountControl", {"514 "}},
                                {"userAccountControl", {"512", "514"}},
                                {"accountExpires", {"99999999999999999999"}}};
    for (const Attribute& state : states) {
        m_forest.addPerson("odd", {state});
        EXPECT_EQ(login("odd@example.com", "odd"), "15 the account's state cannot be read")
            << state.values[0];
        EXPECT_EQ(login("odd@example.com", "wrong"), "14 wrong password") << state.values[0];
    }
}

TEST_P(LoginsTest, WhereNobodyAnswersThatIsNoRefusal) {
    m_forest.domain.answers = false;
    EXPECT_EQ(login(m_ann, "ann"), "12 nobody answers");
}

TEST_P(LoginsTest, AnAnswerAfterTheTimeIsUpIsNoSuccess) {
    m_forest.options.timeout = milliseconds(1000);
    login(m_ann, "ann");
    m_forest.domain.answersAfter = milliseconds(600);
    const Moment before = m_forest.network.clock().now();
    EXPECT_EQ(login(m_ann, "ann").substr(0, 2), isBind() ? "8 " : "12");
    EXPECT_EQ(m_forest.network.clock().now() - before, milliseconds(1000));
}

// ---------------------------------------------------------- memory of log-ins

TEST_P(LoginsTest, WithoutAMemoryNobodyLogsInWhereNobodyAnswers) {
    EXPECT_EQ(login(m_ann, "ann", kAfterTrying), "yes");
    setDown(true);
    EXPECT_EQ(login(m_ann, "ann", kRatherThanTrying).substr(0, 2), "12");
    EXPECT_FALSE(logins().remembersAnybody());
}

TEST_P(LoginsTest, TheMemoryAnswersWhereNoControllerDoesForWhoAllowsIt) {
    remember();
    EXPECT_FALSE(logins().remembersAnybody());
    EXPECT_EQ(login(m_ann, "ann"), "yes");
    EXPECT_TRUE(logins().remembersAnybody());
    setDown(true);
    EXPECT_EQ(login(m_ann, "ann").substr(0, 2), "12");
    EXPECT_EQ(login(m_ann, "ann", kAfterTrying), "yes");
    EXPECT_EQ(login(m_ann, "wrong", kAfterTrying), "14 wrong password");
    EXPECT_EQ(login(m_ann, "ann", kRatherThanTrying), "yes");
    EXPECT_EQ(login(m_ben, "ben", kAfterTrying).substr(0, 2), "12");
}

TEST_P(LoginsTest, WhomTheMemoryLetsInTheLogSays) {
    remember();
    login("ann@example.com", "ann");
    setDown(true);
    const test::CapturedLog log;
    login("ann@example.com", "wrong", kAfterTrying);
    EXPECT_EQ(log.text(), "");
    login("ann@example.com", "ann", kAfterTrying);
    EXPECT_THAT(log.text(), HasSubstr("password of \"ann@example.com\" checked against an earlier check"));
}

TEST_P(LoginsTest, TheDomainIsTriedBeforeTheMemoryUnlessItIsKnownToBeDown) {
    remember();
    login(m_ann, "ann");
    setDown(true);
    m_forest.network.takeExchanges();
    login(m_ann, "ann", kAfterTrying);
    EXPECT_EQ(m_forest.network.count(Exchange::Kind::Search), 1u);
    m_forest.network.takeExchanges();
    login(m_ann, "ann", kRatherThanTrying);
    EXPECT_EQ(m_forest.network.count(Exchange::Kind::Search), 0u);
    EXPECT_EQ(m_forest.network.count(Exchange::Kind::Probe), 1u);
    m_forest.domain.countsAsDown = false;
    login(m_ann, "ann", kRatherThanTrying);
    EXPECT_EQ(m_forest.network.count(Exchange::Kind::Search), 1u);
}

TEST_P(LoginsTest, OneOfAnotherDomainIsTriedWhateverIsKnownOfTheJoinedOne) {
    remember();
    login(m_eve, "eve");
    m_forest.domain.countsAsDown = true;
    m_forest.network.takeExchanges();
    EXPECT_EQ(login(m_eve, "eve", kRatherThanTrying), "yes");
    EXPECT_EQ(m_forest.network.count(Exchange::Kind::Probe), 0u);
    EXPECT_EQ(login("ann@example.com", "ann", kRatherThanTrying), "yes");
    EXPECT_EQ(m_forest.network.count(Exchange::Kind::Probe), 1u);
}

TEST_P(LoginsTest, WhileAControllerAnswersTheMemoryIsNotAsked) {
    remember();
    login(m_ann, "ann");
    m_forest.domain.setPassword(m_ann, "ann", "newer");
    for (int i = 0; i < 2; ++i) {
        m_forest.domain.next(Mishap::fail(Mishap::When::Before, Mishap::unreachable()));  // the search
        EXPECT_EQ(login(m_ann, "ann", kAfterTrying).substr(0, 2), "12");
        EXPECT_EQ(m_forest.network.count(Exchange::Kind::Probe), 1u);
        m_forest.network.takeExchanges();
    }
    m_forest.domain.countsAsDown = true;
    EXPECT_EQ(login(m_ann, "ann", kRatherThanTrying), "14 wrong password");
    EXPECT_EQ(login(m_ann, "newer", kRatherThanTrying), "yes");
}

TEST_P(LoginsTest, ALookAtWhetherSomebodyAnswersTakesASecond) {
    remember();
    login(m_ann, "ann");
    m_forest.domain.countsAsDown = true;
    m_forest.domain.answersAfter = milliseconds(60'000);
    const Moment before = m_forest.network.clock().now();
    EXPECT_EQ(login(m_ann, "ann", kRatherThanTrying), "yes");
    EXPECT_EQ(m_forest.network.clock().now() - before, milliseconds(1000));
}

TEST_P(LoginsTest, ARequestThatHasUsedUpItsTimeDoesNotAskTheMemory) {
    remember();
    login(m_ann, "ann");
    m_forest.domain.next(Mishap::fail(Mishap::When::Before, outOfTime()));
    EXPECT_EQ(login(m_ann, "ann", kAfterTrying), "8 the time for the request is up");
}

TEST_P(LoginsTest, WhatIsRememberedEndsWithItsTime) {
    remember();
    login(m_ann, "ann");
    setDown(true);
    pass(std::chrono::hours(1));
    EXPECT_EQ(login(m_ann, "ann", kAfterTrying), "yes");
    pass(std::chrono::seconds(1));
    EXPECT_EQ(login(m_ann, "ann", kAfterTrying).substr(0, 2), "12");
    EXPECT_FALSE(logins().remembersAnybody());
}

TEST_P(LoginsTest, ARefusalEndsWhatIsRememberedUnderAllNames) {
    remember();
    for (const bool byAnotherName : {false, true}) {
        setDown(false);
        m_forest.domain.setPassword(m_ann, "ann", "ann");
        EXPECT_EQ(login("ann@example.com", "ann"), "yes");
        EXPECT_EQ(login("EXAMPLE\\ann", "ann"), "yes");
        m_forest.domain.setPassword(m_ann, "ann", "newer");
        EXPECT_EQ(login(byAnotherName ? m_ann : "ann@example.com", "ann"), "14 wrong password");
        setDown(true);
        for (const char* name : {"ann@example.com", "EXAMPLE\\ann"})
            EXPECT_EQ(login(name, "ann", kAfterTrying).substr(0, 2), "12") << name;
    }
}

TEST_P(LoginsTest, WhatCannotBeToldEndsNothingThatIsRemembered) {
    remember();
    login(m_ann, "ann");
    m_forest.domain.next(Mishap::failOver(Mishap::When::Before));
    m_forest.domain.next(Mishap::fail(Mishap::When::Before, {LDAP_BUSY, "busy"}));
    login(m_ann, "ann");
    setDown(true);
    EXPECT_EQ(login(m_ann, "ann", kAfterTrying), "yes");
}

TEST_P(LoginsTest, NobodyIsRememberedForADomainThatIsNone) {
    remember();
    EXPECT_EQ(login("CN=x,DC=evil,DC=test", "x", kRatherThanTrying), "13 no such user");
    m_forest.domain.answers = false;
    EXPECT_EQ(login("CN=x,DC=evil,DC=test", "x", kAfterTrying), "13 no such user");
}

TEST_P(LoginsTest, AMemoryThatOthersMayReadIsRefused) {
    remember();
    m_folder.write("logins", "");
    ASSERT_EQ(::chmod(m_forest.options.authCache.file.c_str(), 0644), 0);
    EXPECT_THROW(logins(), AuthCacheError);
}

}  // namespace
}  // namespace vexagent
