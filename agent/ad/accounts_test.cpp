// Ids made from SIDs, refused log-ins, the memory of log-ins.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>

#include "agent/ad/auth_cache.h"
#include "agent/ad/ids.h"
#include "agent/ad/login.h"
#include "agent/directory/identifiers.h"
#include "vorn/temporary_folder_testing.h"

namespace vexagent {
namespace {

std::string sid(const std::string& text) {
    return sidBytes(text).value_or("");
}

constexpr char kDomainSid[] = "S-1-5-21-1185669892-1359130568-1241246553";

IdOptions idsOn() {
    IdOptions options;
    options.fromSid = true;
    return options;
}

// These numbers are on people's disks: they never change.
TEST(Ids, AreTheSameForEver) {
    const Ids ids(idsOn(), sid(kDomainSid));
    ASSERT_TRUE(ids.first().has_value());
    EXPECT_EQ(*ids.first(), 1'340'400'000u);
    EXPECT_EQ(ids.idOf(sid(std::string(kDomainSid) + "-1104")), 1'340'401'104u);
    EXPECT_EQ(Ids(idsOn(), sid("S-1-5-21-1-2-3")).first(), 580'000'000u);
}

TEST(Ids, LeadBackToTheirSid) {
    const Ids ids(idsOn(), sid(kDomainSid));
    EXPECT_EQ(sidText(ids.sidOf(*ids.first() + 513)), std::string(kDomainSid) + "-513");
    EXPECT_EQ(ids.sidOf(*ids.first() - 1), "");
    EXPECT_EQ(ids.sidOf(*ids.first() + 200'000), "");
    EXPECT_NE(ids.sidOf(*ids.first() + 199'999), "");
}

TEST(Ids, OnlyAccountsOfTheDomainWithinTheSliceHaveOne) {
    const Ids ids(idsOn(), sid(kDomainSid));
    EXPECT_EQ(ids.idOf(sid("S-1-5-21-9-9-9-1104")), std::nullopt);
    EXPECT_EQ(ids.idOf(sid("S-1-5-32-544")), std::nullopt);
    EXPECT_EQ(ids.idOf(sid(std::string(kDomainSid) + "-200000")), std::nullopt);
    EXPECT_EQ(ids.idOf(sid(std::string(kDomainSid) + "-199999")), *ids.first() + 199'999);
    EXPECT_EQ(ids.idOf(""), std::nullopt);
}

TEST(Ids, AreOffUnlessWanted) {
    const Ids ids(IdOptions{}, sid(kDomainSid));
    EXPECT_FALSE(ids.enabled());
    EXPECT_EQ(ids.idOf(sid(std::string(kDomainSid) + "-1104")), std::nullopt);
    EXPECT_FALSE(Ids(idsOn(), "").enabled());
}

TEST(Ids, AHomeHoldsTheLoginName) {
    IdOptions options = idsOn();
    EXPECT_EQ(Ids(options, "").homeOf("ann"), "/home/ann");
    options.home = "/%u/home/%u";
    EXPECT_EQ(Ids(options, "").homeOf("%u"), "/%u/home/%u");
}

Entry account(const std::vector<Attribute>& attributes) {
    return {"CN=x", attributes};
}

std::string outcome(const Verdict& verdict) {
    const Result& result = verdict.result();
    return std::to_string(result.code) + " " + std::to_string(result.errSystem) + " " +
           std::to_string(result.errCode) + " " + result.errText +
           (result.detail.empty() ? "" : " | " + result.detail);
}

TEST(LoginResult, OfKerberos) {
    const Entry plain =
        account({{"userAccountControl", {"512"}}, {"pwdLastSet", {"1"}}, {"lockoutTime", {"0"}}});
    const struct {
        krb5_error_code code;
        Entry entry;
        const char* expected;
    } cases[] = {
        {KRB5KDC_ERR_C_PRINCIPAL_UNKNOWN, plain, "13 2 49 no such user"},
        {KRB5KDC_ERR_PREAUTH_FAILED, plain, "14 2 49 wrong password"},
        {KRB5KRB_AP_ERR_BAD_INTEGRITY, plain, "14 2 49 wrong password"},
        {KRB5KDC_ERR_CLIENT_REVOKED, account({{"userAccountControl", {"514"}}}),
         "14 2 49 wrong password | the account is disabled"},
        {KRB5KDC_ERR_CLIENT_REVOKED, account({{"accountExpires", {"132223104000000000"}}}),
         "14 2 49 wrong password | the account has expired"},
        {KRB5KDC_ERR_CLIENT_REVOKED,
         account({{"accountExpires", {"9223372036854775807"}}, {"lockoutTime", {"1"}}}),
         "14 2 49 wrong password | the account is locked out"},
        {KRB5KDC_ERR_CLIENT_REVOKED, plain, "14 2 49 wrong password | the account may not log in now"},
        {KRB5KDC_ERR_NAME_EXP, plain, "14 2 49 wrong password | the account has expired"},
        {KRB5KDC_ERR_KEY_EXP, plain, "14 2 49 wrong password | the password has expired"},
        {KRB5KDC_ERR_KEY_EXP, account({{"pwdLastSet", {"0"}}}),
         "14 2 49 wrong password | the password must be changed"},
        {KRB5KDC_ERR_POLICY, plain, "14 2 49 wrong password | the account may not log in here or now"},
        {KRB5KDC_ERR_ETYPE_NOSUPP, account({{"pwdLastSet", {"0"}}}), "14 2 49 wrong password"},
        {KRB5KDC_ERR_ETYPE_NOSUPP, plain,
         "14 2 49 wrong password | the account has no password that Kerberos could check"},
        {KRB5KRB_AP_ERR_SKEW, plain,
         "8 3 -1765328347 the clocks of this host and the controller differ too much | "
         "the clocks of this host and the controller differ too much: text"},
        {KRB5_KDC_UNREACH, plain,
         "12 2 52 no KDC of the domain can be reached to check the password | "
         "no KDC of the domain can be reached to check the password: text"},
        {KRB5KDC_ERR_S_PRINCIPAL_UNKNOWN, plain,
         "8 3 -1765328377 the password could not be checked | the password could not be checked: text"},
    };
    for (const auto& [code, entry, expected] : cases)
        EXPECT_EQ(outcome(loginResult({{code, code == 0 ? "" : "text"}}, entry, 1'600'000'000)), expected)
            << code;
}

TEST(LoginResult, NothingThatWentWellProvesAPassword) {
    const Entry plain = account({});
    EXPECT_EQ(outcome(loginResult(PasswordCheck(), plain, 0)),
              "8 3 0 the password could not be checked | the password could not be checked: ");
    EXPECT_EQ(outcome(loginFailure(LdapStatus())), "8 1 8 the password was not checked");
    EXPECT_EQ(outcome(Verdict(Result())), "8 1 8 the password was not checked");
    EXPECT_EQ(outcome(Verdict(Result::ldap(VEX_WRONG_PASSWORD, LDAP_SUCCESS, ""))),
              "8 1 8 the password was not checked");
    static_assert(!std::is_default_constructible_v<Verdict>);
    static_assert(!std::is_default_constructible_v<Accepted>);
    static_assert(!std::is_aggregate_v<Accepted>);
    static_assert(!std::is_constructible_v<Verdict, bool> && !std::is_constructible_v<Verdict, LdapStatus>);
}

TEST(LoginResult, AnAnswerThatIsNotTheDomainsIsNoSuccess) {
    EXPECT_EQ(outcome(loginResult({{KRB5_KT_NOTFOUND, "text"}, false}, account({}), 0)),
              "8 3 -1765328203 the answer to the password check could not be verified with the keytab | "
              "the answer to the password check could not be verified with the keytab: text");
}

TEST(LoginResult, AClientLearnsNoAddress) {
    const LdapStatus lost{LDAP_SERVER_DOWN, "192.0.2.1 port 389: refused", true};
    EXPECT_EQ(resultOf(lost).errText, "the domain is out of reach");
    EXPECT_EQ(resultOf(lost).detail, lost.text);
    const LdapStatus refused{LDAP_INSUFFICIENT_ACCESS, "00002098: SecErr, dc1.example.com"};
    EXPECT_EQ(resultOf(refused).errText, "Insufficient access");
    EXPECT_EQ(resultOf(refused).detail, refused.text);
    EXPECT_EQ(resultOf(outOfTime()).errText, "the time for the request is up");
}

TEST(LoginResult, AStateThatCannotBeReadIsARefusal) {
    EXPECT_FALSE(unreadableState(account({})));
    EXPECT_FALSE(unreadableState(account({{"userAccountControl", {"512"}}, {"accountExpires", {"0"}}})));
    for (const char* name : {"userAccountControl", "accountExpires"})
        for (const char* value : {"0x202", "514 ", "99999999999999999999", ""}) {
            const auto refusal = unreadableState(account({{name, {value}}}));
            ASSERT_TRUE(refusal) << name << ": " << value;
            EXPECT_EQ(outcome(*refusal), "15 2 49 the account's state cannot be read");
        }
    EXPECT_TRUE(unreadableState(account({{"userAccountControl", {"512", "514"}}})));
}

TEST(LoginResult, OfABind) {
    const auto text = [](const char* data) {
        return "Invalid credentials: 80090308: LdapErr: DSID-0C09, comment: AcceptSecurityContext error, "
               "data " +
               std::string(data) + ", v4563";
    };
    const std::pair<const char*, const char*> cases[] = {
        {"52e", "14 2 49 wrong password"},
        {"525", "13 2 49 no such user"},
        {"530", "15 2 49 the account may not log in here or now"},
        {"531", "15 2 49 the account may not log in here or now"},
        {"532", "15 2 49 the password has expired"},
        {"533", "15 2 49 the account is disabled"},
        {"701", "15 2 49 the account has expired"},
        {"773", "15 2 49 the password must be changed"},
        {"775", "14 2 49 wrong password | the account is locked out"},
        {"xyz", "14 2 49 wrong password"},
    };
    for (const auto& [data, expected] : cases)
        EXPECT_EQ(outcome(loginFailure(LdapStatus{LDAP_INVALID_CREDENTIALS, text(data)})), expected) << data;
    EXPECT_EQ(outcome(loginFailure(LdapStatus{LDAP_SERVER_DOWN, "gone", true})),
              "12 2 -1 the domain is out of reach | gone");
    EXPECT_EQ(outcome(loginFailure(LdapStatus{LDAP_STRONG_AUTH_REQUIRED, "stronger"})),
              "8 2 8 Strong(er) authentication required | stronger");
}

// ------------------------------------------------------------ memory of log-ins

std::time_t memoryNow = 0;
std::time_t memoryClock() {
    return memoryNow;
}

class AuthCacheTest : public ::testing::Test {
  protected:
    AuthCacheTest() {
        memoryNow = 1'700'000'000;
        m_options.enabled = true;
        m_options.file = m_folder.file("logins");
        m_options.maxAge = std::chrono::hours(1);
        m_options.attempts = 3;
    }
    AuthCache open() const { return AuthCache(m_options, memoryClock); }
    std::string text() const {
        std::ostringstream content;
        content << std::ifstream(m_options.file).rdbuf();
        return content.str();
    }

    vorn::test::TemporaryFolder m_folder;
    AuthCacheOptions m_options;
};

enum class Answer { Right, Wrong, Unknown };

Answer ask(AuthCache& cache, const std::string& name, const std::string& password) {
    const std::optional<Verdict> verdict = cache.check(name, password);
    if (!verdict) return Answer::Unknown;
    EXPECT_EQ(verdict->code(), verdict->accepted() ? VEX_OK : VEX_WRONG_PASSWORD);
    return verdict->accepted() ? Answer::Right : Answer::Wrong;
}

TEST_F(AuthCacheTest, KnowsWhatItWasTold) {
    AuthCache cache(m_options, memoryClock);
    EXPECT_EQ(ask(cache, "ann@example.com", "secret"), Answer::Unknown);
    EXPECT_FALSE(cache.hasAnswers());
    cache.remember("ann@example.com", "", "secret");
    EXPECT_TRUE(cache.hasAnswers());
    EXPECT_EQ(ask(cache, "ANN@Example.com", "secret"), Answer::Right);
    EXPECT_EQ(ask(cache, "ann@example.com", "Secret"), Answer::Wrong);
    EXPECT_EQ(ask(cache, "ben@example.com", "secret"), Answer::Unknown);
    cache.forget("ann@example.com", "");
    EXPECT_EQ(ask(cache, "ann@example.com", "secret"), Answer::Unknown);
}

TEST_F(AuthCacheTest, SurvivesInAFileOfItsOwnWithoutThePassword) {
    const std::string name = "CN=Ann \\, B,OU=x y,DC=example\n1 0 hash bob";
    {
        AuthCache cache(m_options, memoryClock);
        cache.remember(name, "", "a password nobody has");
    }
    struct stat status {};
    ASSERT_EQ(::stat(m_options.file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777u, 0600u);
    EXPECT_EQ(text().find("password"), std::string::npos);
    EXPECT_NE(text().find(" $y$"), std::string::npos);
    AuthCache again(m_options, memoryClock);
    EXPECT_EQ(ask(again, name, "a password nobody has"), Answer::Right);
    EXPECT_EQ(ask(again, "bob", "x"), Answer::Unknown);
}

TEST_F(AuthCacheTest, ARecordAnswersUntilItIsTooOld) {
    AuthCache cache(m_options, memoryClock);
    cache.remember("ann", "", "secret");
    memoryNow += 3600;
    EXPECT_EQ(ask(cache, "ann", "secret"), Answer::Right);
    memoryNow += 1;
    EXPECT_EQ(ask(cache, "ann", "secret"), Answer::Unknown);
    EXPECT_FALSE(cache.hasAnswers());
    memoryNow -= 3602;  // a clock that was set back
    EXPECT_EQ(ask(cache, "ann", "secret"), Answer::Unknown);
}

TEST_F(AuthCacheTest, TooManyWrongOnesInARowEndIt) {
    {
        AuthCache cache(m_options, memoryClock);
        cache.remember("ann", "", "secret");
        EXPECT_EQ(ask(cache, "ann", "1"), Answer::Wrong);
        EXPECT_EQ(ask(cache, "ann", "2"), Answer::Wrong);
        EXPECT_EQ(ask(cache, "ann", "secret"), Answer::Right);  // counts anew
        EXPECT_EQ(ask(cache, "ann", "3"), Answer::Wrong);
        EXPECT_EQ(ask(cache, "ann", "4"), Answer::Wrong);
    }
    AuthCache again(m_options, memoryClock);  // a restart does not help
    EXPECT_EQ(ask(again, "ann", "5"), Answer::Wrong);
    EXPECT_EQ(ask(again, "ann", "secret"), Answer::Unknown);
    again.remember("ann", "", "secret");
    EXPECT_EQ(ask(again, "ann", "secret"), Answer::Right);
}

TEST_F(AuthCacheTest, WhatIsRefusedEndsTheRecordsOfAllItsNames) {
    const auto fill = [](AuthCache& cache) {
        cache.remember("ann@example.com", "guid-1", "secret");
        cache.remember("EXAMPLE\\ann", "guid-1", "secret");
        cache.remember("ben@example.com", "guid-2", "secret");
        cache.remember("cleo@example.com", "", "secret");
    };
    {
        AuthCache cache(m_options, memoryClock);
        fill(cache);
        cache.forget("CN=ann,DC=example,DC=com", "guid-1");  // by a name that was not remembered
        EXPECT_EQ(ask(cache, "ann@example.com", "secret"), Answer::Unknown);
        EXPECT_EQ(ask(cache, "EXAMPLE\\ann", "secret"), Answer::Unknown);
        fill(cache);
    }
    AuthCache again(m_options, memoryClock);
    again.forget("ann@example.com", "");  // of whom nobody knows now whose name it was
    EXPECT_EQ(ask(again, "EXAMPLE\\ann", "secret"), Answer::Unknown);
    EXPECT_EQ(ask(again, "ben@example.com", "secret"), Answer::Right);
    EXPECT_EQ(ask(again, "cleo@example.com", "secret"), Answer::Right);
    again.forget("nobody@example.com", "");
    EXPECT_EQ(ask(again, "cleo@example.com", "secret"), Answer::Right);
}

TEST_F(AuthCacheTest, RecordsWithoutAnAccountAreReadStill) {
    {
        AuthCache cache(m_options, memoryClock);
        cache.remember("ann", "", "secret");
    }
    EXPECT_EQ(text().find(" ann\n"), text().size() - 5);
    AuthCache again(m_options, memoryClock);
    EXPECT_EQ(ask(again, "ann", "secret"), Answer::Right);
}

TEST_F(AuthCacheTest, APasswordThatCannotBeKeptTakesTheOldOnesPlace) {
    AuthCache cache(m_options, memoryClock);
    cache.remember("ann", "guid", "secret");
    cache.remember("ann", "guid", std::string("other\0", 6));
    EXPECT_EQ(ask(cache, "ann", "secret"), Answer::Unknown);
}

TEST_F(AuthCacheTest, APasswordsStartDoesNotPassForIt) {
    AuthCache cache(m_options, memoryClock);
    cache.remember("ann", "", "secret");
    EXPECT_EQ(ask(cache, "ann", std::string("secret\0more", 11)), Answer::Wrong);
    cache.remember("ben", "", std::string("secret\0more", 11));
    EXPECT_EQ(ask(cache, "ben", "secret"), Answer::Unknown);
}

TEST_F(AuthCacheTest, AFileThatOthersCanReadIsRefused) {
    m_folder.write("logins", "");
    ASSERT_EQ(::chmod(m_options.file.c_str(), 0640), 0);
    try {
        open();
        ADD_FAILURE() << "accepted";
    } catch (const AuthCacheError& error) {
        EXPECT_EQ(error.what(), m_options.file + ": is not a file of the agent's own with mode 0600");
    }
}

}  // namespace
}  // namespace vexagent
