// SPDX-License-Identifier: Apache-2.0
// Whose password is right, and who says so.

#include "agent/ad/net/password_check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/ad/net/scripted_kdc_testing.h"
#include "vorn/temporary_folder_testing.h"

namespace vexagent {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kHost[] = "host/web.example.com@EXAMPLE.COM";
constexpr char kTickets[] = "krbtgt/EXAMPLE.COM@EXAMPLE.COM";

class PasswordCheckTest : public ::testing::Test {
  protected:
    PasswordCheckTest() {
        m_options.domain = "example.com";
        m_options.account.keytab = m_folder.file("keytab");
        m_kdc.addPerson("ann@EXAMPLE.COM", "secret");
        m_kdc.addPerson("eve@FAR.EXAMPLE.COM", "secret");
    }
    // "yes", or the code and whether the answer is the domain's.
    std::string check(const std::string& account, const std::string& password,
                      const std::string& domain = "example.com") {
        KdcConversation conversation([this](const std::string&) { return &m_kdc.controllers(); },
                                     Deadline(vorn::systemSteadyClock(), milliseconds(60'000)),
                                     m_kdc.carrier());
        const auto accepted = checkPassword(m_options, conversation, account, domain, password);
        if (accepted) return "yes";
        m_text = accepted.error().text;
        return std::to_string(accepted.error().code) + (accepted.error().verified ? "" : " unverified");
    }
    static std::string asks(const std::string& who, const std::string& what) { return who + " for " + what; }

    vorn::test::TemporaryFolder m_folder;
    AdOptions m_options;
    ScriptedKdc m_kdc;
    std::string m_text;
};

const std::string kWrong = std::to_string(KRB5KDC_ERR_PREAUTH_FAILED);

TEST_F(PasswordCheckTest, ARightPasswordIsATicketForTheHostAtOnce) {
    m_kdc.addKey(kHost, m_options.account.keytab);
    EXPECT_EQ(check("ann", "secret"), "yes");
    EXPECT_THAT(m_kdc.takeAsked(),
                ElementsAre(asks("ann@EXAMPLE.COM", kHost), asks("ann@EXAMPLE.COM", kHost) + " proved"));
}

TEST_F(PasswordCheckTest, AWrongPasswordIsShownOnce) {
    m_kdc.addKey(kHost, m_options.account.keytab);
    EXPECT_EQ(check("ann", "wrong"), kWrong);
    EXPECT_THAT(m_kdc.takeAsked(),
                ElementsAre(asks("ann@EXAMPLE.COM", kHost), asks("ann@EXAMPLE.COM", kHost) + " proved"));
    EXPECT_EQ(check("ann", ""), kWrong);
}

TEST_F(PasswordCheckTest, WhoIsNotKnownIsAskedAboutAsOften) {
    m_kdc.addKey(kHost, m_options.account.keytab);
    EXPECT_EQ(check("nobody", "secret"), std::to_string(KRB5KDC_ERR_C_PRINCIPAL_UNKNOWN));
    EXPECT_THAT(m_kdc.takeAsked(),
                ElementsAre(asks("nobody@EXAMPLE.COM", kHost), asks("nobody@EXAMPLE.COM", kHost)));
}

TEST_F(PasswordCheckTest, APasswordsStartDoesNotPassForIt) {
    m_kdc.addKey(kHost, m_options.account.keytab);
    EXPECT_EQ(check("ann", std::string("secret\0more", 11)), kWrong);
    EXPECT_THAT(m_kdc.takeAsked(), IsEmpty());
}

TEST_F(PasswordCheckTest, AnAnswerThatTheKeytabDoesNotProveIsNone) {
    ScriptedKdc::writeKey(kHost, m_options.account.keytab, "another key");
    m_kdc.addPerson(kHost, "key");
    const std::string unproved = check("ann", "secret");
    EXPECT_TRUE(unproved.ends_with(" unverified")) << unproved;
}

TEST_F(PasswordCheckTest, WithoutAKeytabNothingIsProved) {
    EXPECT_EQ(check("ann", "secret"), std::to_string(KRB5_KT_NOTFOUND) + " unverified");
    EXPECT_TRUE(m_text.starts_with("keytab " + m_options.account.keytab + ": ")) << m_text;
    EXPECT_THAT(m_kdc.takeAsked(), ElementsAre(asks("ann@EXAMPLE.COM", kTickets),
                                               asks("ann@EXAMPLE.COM", kTickets) + " proved"));
    EXPECT_EQ(check("ann", "wrong"), kWrong);  // that is the domain's own word
}

TEST_F(PasswordCheckTest, AKeytabWithoutANameOfTheHostProvesNothing) {
    m_kdc.addKey("nfs/web.example.com@EXAMPLE.COM", m_options.account.keytab);
    EXPECT_EQ(check("ann", "secret"), std::to_string(KRB5_KT_NOTFOUND) + " unverified");
}

TEST_F(PasswordCheckTest, SomebodyOfAnotherDomainGetsATicketForTheHostByWayOfHisOwn) {
    m_kdc.addKey(kHost, m_options.account.keytab);
    EXPECT_EQ(check("eve", "secret", "far.example.com"), "yes");
    const std::string eve = "eve@FAR.EXAMPLE.COM", tickets = "krbtgt/FAR.EXAMPLE.COM@FAR.EXAMPLE.COM",
                      between = "krbtgt/EXAMPLE.COM@FAR.EXAMPLE.COM";
    EXPECT_THAT(m_kdc.takeAsked(),
                ElementsAre(asks(eve, tickets), asks(eve, tickets) + " proved",
                            asks(eve, between) + " by ticket", asks(eve, kHost) + " by ticket"));
}

TEST_F(PasswordCheckTest, WhereNobodyAnswersThatIsTold) {
    m_kdc.addKey(kHost, m_options.account.keytab);
    m_kdc.answers = false;
    EXPECT_EQ(check("ann", "secret"), std::to_string(KRB5_KDC_UNREACH));
    EXPECT_EQ(m_text, "dc1.example.com: no answer");
}

}  // namespace
}  // namespace vexagent
