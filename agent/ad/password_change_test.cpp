// SPDX-License-Identifier: Apache-2.0
// People of a domain who change their own passwords.
#include <gmock/gmock.h>
#include <krb5.h>

#include "agent/ad/forest_testing.h"
#include "agent/ad/logins.h"
#include "vorn/temporary_folder_testing.h"

namespace vexagent {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Of = ChangeFailure::Of;

// Writes down what it is asked for, and does it unless it is to fail.
class FakeChanger : public PasswordChanger {
  public:
    explicit FakeChanger(FakeDomain& domain) : m_domain(domain) {}

    std::vector<std::string> asked;
    std::optional<ChangeFailure> failure;

    Expected<Done, ChangeFailure> changePassword(const Place& place, const PasswordChange& change,
                                                 const Deadline&) override {
        asked.push_back(place.name + " " + change.account + " " + change.oldPassword + " " +
                        change.newPassword);
        if (failure) return vorn::unexpected(*failure);
        m_domain.setPassword("CN=" + change.account + "," + test::kPeople, change.account,
                             change.newPassword);
        return Done();
    }

  private:
    FakeDomain& m_domain;
};

class ADomainsPasswordChange : public ::testing::Test {
  protected:
    ADomainsPasswordChange() {
        m_ann = m_forest.addPerson("ann", {{"uid", {"annie"}}});
        m_forest.options.transport = Transport::Gssapi;
        m_forest.options.authCache.enabled = true;
        m_forest.options.authCache.file = m_folder.file("logins");
        m_forest.options.authCache.maxAge = std::chrono::hours(1);
        m_forest.options.authCache.attempts = 3;
        m_logins.emplace(m_forest.network, m_forest.options, m_domains);
    }
    // "done", or the code, the error behind it and the client's text.
    std::string change(const std::string& user, const std::string& from, const std::string& to) {
        const Result result = m_logins->changePassword(m_changer, user, from, to);
        if (result.ok()) return "done";
        return std::to_string(result.code) + " " + std::to_string(result.errCode) + " " + result.errText;
    }

    vorn::test::TemporaryFolder m_folder;
    test::ExampleForest m_forest;
    FakeChanger m_changer{m_forest.domain};
    std::string m_ann;
    Domains m_domains{m_forest.network, m_forest.options};
    std::optional<Logins> m_logins;
};

TEST_F(ADomainsPasswordChange, IsAskedForByTheAccountWhateverItsName) {
    EXPECT_EQ(change(m_ann, "ann", "n3w"), "done");
    EXPECT_EQ(change("EXAMPLE\\ann", "n3w", "newer"), "done");
    EXPECT_THAT(m_changer.asked, ElementsAre("example.com ann ann n3w", "example.com ann n3w newer"));
}

TEST_F(ADomainsPasswordChange, NeedsTheOldOne) {
    EXPECT_EQ(change(m_ann, "wrong", "n3w"), "14 49 wrong password");
    EXPECT_EQ(change(m_ann, "", "n3w"), "14 49 wrong password");
    EXPECT_EQ(change(m_ann, std::string("ann\0", 4), "n3w"), "14 49 wrong password");
    EXPECT_EQ(change("nobody@example.com", "ann", "n3w"), "13 49 no such user");
    EXPECT_EQ(change("", "ann", "n3w"), "13 49 no such user");
    EXPECT_THAT(m_changer.asked, IsEmpty());
}

TEST_F(ADomainsPasswordChange, WithoutANewOneAsksNobody) {
    EXPECT_EQ(change(m_ann, "ann", ""), "16 19 the new password is empty or holds a NUL");
    EXPECT_EQ(change(m_ann, "ann", std::string("n\0w", 3)), "16 19 the new password is empty or holds a NUL");
    EXPECT_THAT(m_changer.asked, IsEmpty());
    EXPECT_THAT(m_forest.network.exchanges, IsEmpty());
}

TEST_F(ADomainsPasswordChange, TellsWhyTheDomainDoesNotMakeIt) {
    m_changer.failure = {Of::NewPassword, KdcFailure{KRB5_KPASSWD_SOFTERROR, "too short"}};
    EXPECT_EQ(change(m_ann, "ann", "n"), "16 19 the domain does not take this new password");
    m_changer.failure = {Of::Leave, KdcFailure{KRB5_KPASSWD_ACCESSDENIED, "no"}};
    EXPECT_EQ(change(m_ann, "ann", "n"), "16 50 the account may not change its password");
    m_changer.failure = {Of::Service, KdcFailure{KRB5_KDC_UNREACH, "no answer"}};
    EXPECT_EQ(m_logins->changePassword(m_changer, m_ann, "ann", "n").code, VEX_DIRECTORY_ERROR);
    m_changer.failure = {Of::OldPassword, KdcFailure{KRB5KDC_ERR_PREAUTH_FAILED, "changed meanwhile"}};
    EXPECT_EQ(change(m_ann, "ann", "n"), "14 49 wrong password");
}

TEST_F(ADomainsPasswordChange, TellsTheSameWhereTheDomainWasAskedByLdap) {
    m_changer.failure = {Of::NewPassword, LdapFailure(LDAP_CONSTRAINT_VIOLATION, "0000052D: too short")};
    EXPECT_EQ(change(m_ann, "ann", "n"), "16 19 the domain does not take this new password");
    m_changer.failure = {Of::Leave, LdapFailure(LDAP_INSUFFICIENT_ACCESS, "no")};
    EXPECT_EQ(change(m_ann, "ann", "n"), "16 50 the account may not change its password");
    m_changer.failure = {Of::OldPassword, LdapFailure(LDAP_INVALID_CREDENTIALS, "data 52e")};
    EXPECT_EQ(change(m_ann, "ann", "n"), "14 49 wrong password");
    m_changer.failure = {Of::OldPassword, LdapFailure(LDAP_SERVER_DOWN, "gone", true)};
    EXPECT_EQ(m_logins->changePassword(m_changer, m_ann, "ann", "n").code, VEX_UNAVAILABLE);
    m_changer.failure = {Of::Service, LdapFailure(LDAP_TIMEOUT, "dc1: no answer", true)};
    EXPECT_EQ(change(m_ann, "ann", "n"), "8 -5 the domain has not said whether the password was changed");
}

// Nobody may log in with the old one while the domain is out of reach, under any name; not
// even where the change may have failed.
TEST_F(ADomainsPasswordChange, EndsWhatIsRememberedOfTheOldOne) {
    for (const bool fails : {false, true}) {
        ASSERT_TRUE(m_logins->authenticate(m_ann, fails ? "n3w" : "ann", {}).accepted());
        ASSERT_TRUE(m_logins->authenticate("ann@example.com", fails ? "n3w" : "ann", {}).accepted());
        ASSERT_TRUE(m_logins->remembersAnybody());
        if (fails) m_changer.failure = {Of::Service, KdcFailure{KRB5_KDC_UNREACH, "no answer"}};
        change(m_ann, fails ? "n3w" : "ann", "n3w");
        EXPECT_FALSE(m_logins->remembersAnybody()) << fails;
    }
}

TEST_F(ADomainsPasswordChange, OfADomainOutOfReachIsAFailure) {
    m_forest.domain.answers = false;
    EXPECT_EQ(m_logins->changePassword(m_changer, m_ann, "ann", "n3w").code, VEX_UNAVAILABLE);
    EXPECT_THAT(m_changer.asked, IsEmpty());
}

}  // namespace
}  // namespace vexagent
