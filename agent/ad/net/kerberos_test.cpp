// Kerberos as far as nobody is asked.

#include "agent/ad/net/kerberos.h"

#include <gtest/gtest.h>

namespace vexagent {
namespace {

const Deadline& soon() {
    static const Deadline deadline = within(milliseconds(60'000));
    return deadline;
}

TEST(Kerberos, NothingIsFetchedBehindTheAgentsBack) {
    EXPECT_EQ(realmOf("Example.com"), "EXAMPLE.COM");
    EXPECT_EQ(
        krb5Settings("Example.com"),
        "[libdefaults]\n default_realm = EXAMPLE.COM\n dns_lookup_kdc = false\n dns_lookup_realm = false\n"
        " dns_canonicalize_hostname = false\n dns_uri_lookup = false\n rdns = false\n"
        " default_rcache_name = none:\n"
        "[domain_realm]\n .example.com = EXAMPLE.COM\n example.com = EXAMPLE.COM\n");
}

TEST(Kerberos, ItsSettingsAreTheAgentsOwn) {
    KdcConversation nobody([](const std::string&) { return nullptr; }, soon());
    const Kerberos kerberos("Example.com", nobody);
    char* realm = nullptr;
    ASSERT_EQ(krb5_get_default_realm(kerberos.get(), &realm), 0);
    EXPECT_STREQ(realm, "EXAMPLE.COM");
    krb5_free_default_realm(kerberos.get(), realm);
    for (const auto& [host, expected] :
         {std::pair("example.com", "EXAMPLE.COM"), std::pair("dc1.example.com", "EXAMPLE.COM"),
          std::pair("dc1.other.test", "")}) {
        char** realms = nullptr;
        ASSERT_EQ(krb5_get_host_realm(kerberos.get(), host, &realms), 0);
        EXPECT_STREQ(realms[0], expected) << host;
        krb5_free_host_realm(kerberos.get(), realms);
    }
}

TEST(Kerberos, AStatusSaysWhatTheLibrarySays) {
    KdcConversation nobody([](const std::string&) { return nullptr; }, soon());
    const Kerberos kerberos("example.com", nobody);
    EXPECT_TRUE(kerberos.status(0).ok());
    EXPECT_EQ(kerberos.status(KRB5KRB_AP_ERR_SKEW).code, KRB5KRB_AP_ERR_SKEW);
    EXPECT_EQ(kerberos.status(KRB5KRB_AP_ERR_SKEW).text, "Clock skew too great");
}

TEST(Kerberos, AKeytabThatIsNotThereIsNamed) {
    KdcConversation nobody([](const std::string&) { return nullptr; }, soon());
    const Kerberos kerberos("example.com", nobody);
    const KrbKeytab keytab(kerberos, "/no/such/keytab");
    EXPECT_FALSE(keytab.status().ok());
    EXPECT_EQ(keytab.status().text.rfind("keytab /no/such/keytab: ", 0), 0u) << keytab.status().text;
    EXPECT_EQ(keytab.find([](krb5_const_principal) { return true; }), nullptr);
}

class KdcConversationTest : public ::testing::Test {
  protected:
    KrbStatus ask(KdcConversation& kdc, const std::string& realm) {
        std::string reply;
        return kdc.exchange(realm, "message", true, reply);
    }
    Controllers m_controllers{[] { return 0.0; }};
};

TEST_F(KdcConversationTest, ARealmThatIsNotKnownIsAskedForNothing) {
    KdcConversation kdc([](const std::string&) { return nullptr; }, soon());
    const KrbStatus status = ask(kdc, "OTHER.TEST");
    EXPECT_EQ(status.code, KRB5_REALM_UNKNOWN);
    EXPECT_EQ(status.text, "no controllers of the realm OTHER.TEST");
    EXPECT_EQ(kdc.answered().host, "");
}

TEST_F(KdcConversationTest, WithoutControllersThereIsNobodyToAsk) {
    KdcConversation kdc([this](const std::string&) { return &m_controllers; }, soon());
    const KrbStatus status = ask(kdc, "EXAMPLE.COM");
    EXPECT_EQ(status.code, KRB5_KDC_UNREACH);
    EXPECT_EQ(status.text, "no controller of the realm EXAMPLE.COM is known");
    EXPECT_FALSE(status.barred);
}

TEST_F(KdcConversationTest, WhereAllRefuseTheAgentsKeyNobodyIsAsked) {
    m_controllers.set({{{"127.0.0.1", 389}, 0}});
    KdcConversation kdc([this](const std::string&) { return &m_controllers; }, soon());
    kdc.askOnly([](const Peer&) { return false; });
    const KrbStatus status = ask(kdc, "EXAMPLE.COM");
    EXPECT_TRUE(status.barred);
    EXPECT_EQ(status.text, "the domain refuses the machine's key; it is tried again later");
    EXPECT_FALSE(m_controllers.allDown(now()));
}

}  // namespace
}  // namespace vexagent
