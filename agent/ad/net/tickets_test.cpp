// SPDX-License-Identifier: Apache-2.0
// When the machine's ticket is taken anew, and what is no reason to try again at once.

#include "agent/ad/net/tickets.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "agent/ad/net/krb_profile.h"
#include "agent/ad/net/scripted_kdc_testing.h"
#include "agent/directory/log_testing.h"
#include "vorn/clock_testing.h"
#include "vorn/temporary_folder_testing.h"

namespace vexagent {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr std::time_t kHour = 3600;

TEST(TicketLife, OneThatWasNeverTakenIsDue) {
    const TicketLife life;
    EXPECT_TRUE(life.isDue(1'795'000'000));
    EXPECT_FALSE(life.serves(1'795'000'000));
}

TEST(TicketLife, IsOverWhenAFifthOfItIsLeft) {
    TicketLife life;
    life.begin(1000, 1000 + 10 * kHour);
    EXPECT_FALSE(life.isDue(1000));
    EXPECT_FALSE(life.isDue(1000 + 8 * kHour - 1));
    EXPECT_TRUE(life.isDue(1000 + 8 * kHour));
}

TEST(TicketLife, AShortOneIsOverAMinuteBeforeItsEnd) {
    TicketLife life;
    life.begin(1000, 1200);
    EXPECT_FALSE(life.isDue(1139));
    EXPECT_TRUE(life.isDue(1140));
}

TEST(TicketLife, AnOldOneServesUntilAMinuteBeforeItsEnd) {
    TicketLife life;
    life.begin(1000, 1000 + 10 * kHour);
    EXPECT_TRUE(life.serves(1000 + 10 * kHour - 61));
    EXPECT_FALSE(life.serves(1000 + 10 * kHour - 60));
}

TEST(TicketLife, AClockThatJumpsAheadMakesItDue) {
    TicketLife life;
    life.begin(1000, 1000 + 10 * kHour);
    EXPECT_TRUE(life.isDue(1000 + 1000 * kHour));
    EXPECT_FALSE(life.isDue(0));
}

TEST(Tickets, ARefusalOfTheMachineIsTheDomainsAndNotTheNetworks) {
    for (const krb5_error_code code :
         {KRB5KDC_ERR_PREAUTH_FAILED, KRB5KRB_AP_ERR_BAD_INTEGRITY, KRB5KDC_ERR_CLIENT_REVOKED,
          KRB5KDC_ERR_C_PRINCIPAL_UNKNOWN, KRB5KDC_ERR_KEY_EXP, KRB5KDC_ERR_NAME_EXP, KRB5KDC_ERR_POLICY})
        EXPECT_TRUE(isRefusalOfMachine(code)) << code;
    for (const krb5_error_code code : {KRB5_KDC_UNREACH, KRB5_REALM_UNKNOWN, KRB5KRB_AP_ERR_SKEW,
                                       KRB5_KT_NOTFOUND, KRB5KDC_ERR_ETYPE_NOSUPP})
        EXPECT_FALSE(isRefusalOfMachine(code)) << code;
}

constexpr char kMachine[] = "WEB$@EXAMPLE.COM";
constexpr char kLogIn[] = "WEB$@EXAMPLE.COM for krbtgt/EXAMPLE.COM@EXAMPLE.COM";
constexpr char kLogInProved[] = "WEB$@EXAMPLE.COM for krbtgt/EXAMPLE.COM@EXAMPLE.COM proved";
constexpr char kLdap[] = "WEB$@EXAMPLE.COM for ldap/dc1.example.com@EXAMPLE.COM by ticket";

std::time_t ahead = 0;  // of the library's clock

class TicketsTest : public ::testing::Test {
  protected:
    TicketsTest() {
        ahead = 0;
        m_options.domain = "example.com";
        m_options.account.keytab = m_folder.file("keytab");
        m_options.clock = [] { return std::time(nullptr) + ahead; };
    }
    void join() { m_kdc.addKey(kMachine, m_options.account.keytab); }
    Tickets& tickets() {
        if (!m_tickets)
            m_tickets.emplace(
                m_options, [this](const std::string&) { return &m_kdc.controllers(); }, m_kdc.carrier());
        return *m_tickets;
    }
    Krb<std::time_t> prepare(const std::string& domain = "example.com",
                             const std::string& host = "dc1.example.com") {
        return tickets().prepare(domain, host, Deadline(m_clock, milliseconds(60'000)));
    }
    // "yes", or the reason.
    std::string outcome() {
        const auto end = prepare();
        return end ? "yes" : end.error().text;
    }
    // Whether the cache holds a ticket for a service.
    static bool holds(const std::string& service) {
        const std::unique_ptr<std::remove_pointer_t<krb5_context>, decltype(&krb5_free_context)> context(
            newKrbContext("example.com"), krb5_free_context);
        krb5_ccache cache = nullptr;
        EXPECT_EQ(krb5_cc_resolve(context.get(), std::getenv("KRB5CCNAME"), &cache), 0);
        KrbPrincipal client(context.get()), server(context.get());
        EXPECT_EQ(krb5_cc_get_principal(context.get(), cache, client.place()), 0);
        EXPECT_EQ(krb5_parse_name(context.get(), service.c_str(), server.place()), 0);
        krb5_creds wanted{};
        wanted.client = client.get();
        wanted.server = server.get();
        KrbCredentials found(context.get());
        const bool there = krb5_cc_retrieve_cred(context.get(), cache, 0, &wanted, &found.get()) == 0;
        krb5_cc_close(context.get(), cache);
        return there;
    }

    vorn::test::TemporaryFolder m_folder;
    vorn::test::ManualClock m_clock;
    AdOptions m_options;
    ScriptedKdc m_kdc;
    std::optional<Tickets> m_tickets;
};

TEST_F(TicketsTest, AreFetchedOnceAndServeUntilTheyEnd) {
    join();
    const std::time_t before = std::time(nullptr);
    const auto end = prepare();
    ASSERT_TRUE(end) << end.error().text;
    EXPECT_GE(*end, before + m_kdc.lifetime);
    EXPECT_LE(*end, std::time(nullptr) + m_kdc.lifetime);
    EXPECT_THAT(m_kdc.takeAsked(), ElementsAre(kLogIn, kLogInProved, kLdap));
    EXPECT_TRUE(holds("krbtgt/EXAMPLE.COM@EXAMPLE.COM"));
    EXPECT_TRUE(holds("ldap/dc1.example.com@EXAMPLE.COM"));
    EXPECT_EQ(*prepare(), *end);
    EXPECT_THAT(m_kdc.takeAsked(), IsEmpty());
}

TEST_F(TicketsTest, TheMachinesIsTakenAnewBeforeItEndsAndTheOthersWithIt) {
    join();
    ASSERT_TRUE(prepare());
    m_kdc.takeAsked();
    ahead = m_kdc.lifetime * 4 / 5 - 60;
    EXPECT_EQ(outcome(), "yes");
    EXPECT_THAT(m_kdc.takeAsked(), IsEmpty());
    ahead = m_kdc.lifetime * 4 / 5;
    EXPECT_EQ(outcome(), "yes");
    EXPECT_THAT(m_kdc.takeAsked(), ElementsAre(kLogIn, kLogInProved, kLdap));
}

TEST_F(TicketsTest, AnOldOneServesWhereNoNewOneIsToBeHad) {
    join();
    ASSERT_TRUE(prepare());
    m_kdc.refuse(kMachine, KRB5KDC_ERR_CLIENT_REVOKED);
    ahead = m_kdc.lifetime - 120;
    EXPECT_EQ(outcome(), "yes");
    ahead = m_kdc.lifetime - 30;
    const auto end = prepare();
    ASSERT_FALSE(end);
    EXPECT_TRUE(end.error().barred);
}

TEST_F(TicketsTest, GssapiFindsThemAndNothingElse) {
    ::setenv("KRB5_CLIENT_KTNAME", "/etc/krb5.keytab", 1);
    tickets();
    EXPECT_STREQ(std::getenv("KRB5CCNAME"), "MEMORY:vexagent");
    EXPECT_EQ(std::getenv("KRB5_CLIENT_KTNAME"), nullptr);
    std::ostringstream text;
    text << std::ifstream(std::getenv("KRB5_CONFIG")).rdbuf();
    EXPECT_EQ(text.str(), krb5Settings("example.com"));
}

TEST_F(TicketsTest, AKeyThatIsAnotherOneByNowIsToldAndShownRarely) {
    m_kdc.addPerson(kMachine, "new key");
    ScriptedKdc::writeKey(kMachine, m_options.account.keytab, "old key");
    const std::string told =
        "keytab " + m_options.account.keytab + ": the machine's key is another one by now: ";
    {
        const test::CapturedLog log;
        const auto refused = prepare();
        ASSERT_FALSE(refused);
        EXPECT_EQ(refused.error().code, KRB5KDC_ERR_PREAUTH_FAILED);
        EXPECT_TRUE(refused.error().barred);
        EXPECT_TRUE(refused.error().text.starts_with(told)) << refused.error().text;
        EXPECT_THAT(log.text(),
                    HasSubstr("the domain refuses the key in " + m_options.account.keytab + ": " + told));
    }
    m_kdc.takeAsked();
    EXPECT_EQ(outcome(), "the domain refuses the machine's key; it is tried again later");
    EXPECT_THAT(m_kdc.takeAsked(), IsEmpty());
    m_clock.advance(OwnLogin::kFirstDelay);
    {
        const test::CapturedLog log;
        EXPECT_TRUE(outcome().starts_with(told));
        EXPECT_EQ(log.text(), "");  // once
    }
    // Another key is tried at once.
    std::remove(m_options.account.keytab.c_str());
    ScriptedKdc::writeKey(kMachine, m_options.account.keytab, "new key");
    EXPECT_EQ(outcome(), "yes");
}

TEST_F(TicketsTest, ThatTheMachineIsLetInAgainIsTold) {
    join();
    m_kdc.refuse(kMachine, KRB5KDC_ERR_CLIENT_REVOKED);
    const auto refused = prepare();
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().text.find("another one by now"), std::string::npos) << refused.error().text;
    m_kdc.refuse(kMachine, 0);
    m_clock.advance(OwnLogin::kFirstDelay);
    const test::CapturedLog log;
    EXPECT_EQ(outcome(), "yes");
    EXPECT_THAT(log.text(), HasSubstr("the domain lets the machine in again\n"));
}

TEST_F(TicketsTest, ADomainThatIsOutOfReachHasRefusedNobody) {
    join();
    m_kdc.answers = false;
    const test::CapturedLog log;
    const auto lost = prepare();
    ASSERT_FALSE(lost);
    EXPECT_FALSE(lost.error().barred);
    EXPECT_EQ(lost.error().text, "dc1.example.com: no answer");
    EXPECT_EQ(log.text(), "");
    m_kdc.answers = true;
    m_kdc.controllers().set({});
    m_kdc.controllers().set({{{"dc1.example.com", 389}, 0}});
    EXPECT_EQ(outcome(), "yes");
}

TEST_F(TicketsTest, AKeyThatFitsNoMoreIsToldToBeAnother) {
    join();
    m_kdc.refuse(kMachine, KRB5KRB_AP_ERR_BAD_INTEGRITY);
    EXPECT_THAT(outcome(), HasSubstr(": the machine's key is another one by now: "));
}

TEST_F(TicketsTest, WithoutTheMachinesNameThereAreNone) {
    EXPECT_TRUE(outcome().starts_with("keytab " + m_options.account.keytab + ": "));
    m_kdc.addKey("web@EXAMPLE.COM", m_options.account.keytab);
    const auto none = prepare();
    ASSERT_FALSE(none);
    EXPECT_EQ(none.error().code, KRB5_KT_NOTFOUND);
    EXPECT_EQ(none.error().text,
              "keytab " + m_options.account.keytab + ": no name of the form HOST$@EXAMPLE.COM");
    EXPECT_THAT(m_kdc.takeAsked(), IsEmpty());
}

TEST_F(TicketsTest, AServiceThatIsNotKnownHasNone) {
    join();
    m_kdc.refuse("ldap/dc1.example.com@EXAMPLE.COM", KRB5KDC_ERR_S_PRINCIPAL_UNKNOWN);
    const auto none = prepare();
    ASSERT_FALSE(none);
    EXPECT_EQ(none.error().code, KRB5KDC_ERR_S_PRINCIPAL_UNKNOWN);
    EXPECT_FALSE(none.error().barred);
}

TEST_F(TicketsTest, AHostOfAnotherDomainIsFoundUnderTheMachinesRealm) {
    join();
    const auto end = prepare("Far.example.com", "dc.far.example.com");
    ASSERT_TRUE(end) << end.error().text;
    EXPECT_TRUE(holds("ldap/dc.far.example.com@FAR.EXAMPLE.COM"));
    EXPECT_TRUE(holds("ldap/dc.far.example.com@EXAMPLE.COM"));
    ASSERT_TRUE(prepare("EXAMPLE.com", "dc2.example.com"));
    EXPECT_TRUE(holds("ldap/dc2.example.com@EXAMPLE.COM"));
}

TEST_F(TicketsTest, WhileTheyAreInUseNoneIsFetched) {
    join();
    const auto inUse = tickets().lockForUse();
    const auto late = tickets().prepare("example.com", "dc1.example.com",
                                        Deadline(vorn::systemSteadyClock(), milliseconds(20)));
    ASSERT_FALSE(late);
    EXPECT_EQ(late.error().code, KRB5_KDC_UNREACH);
    EXPECT_EQ(late.error().text, "no ticket could be had in time");
    EXPECT_THAT(m_kdc.takeAsked(), IsEmpty());
}

}  // namespace
}  // namespace vexagent
