// SPDX-License-Identifier: Apache-2.0
// Kerberos as far as nobody is asked.

#include "agent/ad/net/kerberos.h"

#include <gtest/gtest.h>

#include "agent/ad/net/krb_profile.h"

namespace vexagent {
namespace {

const Deadline& soon() {
    static const Deadline deadline(vorn::systemSteadyClock(), milliseconds(60'000));
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
    EXPECT_TRUE(kerberos.outcome(0));
    const auto skewed = kerberos.outcome(KRB5KRB_AP_ERR_SKEW);
    ASSERT_FALSE(skewed);
    EXPECT_EQ(skewed.error().code, KRB5KRB_AP_ERR_SKEW);
    EXPECT_EQ(skewed.error().text, "Clock skew too great");
}

TEST(Kerberos, AKeytabThatIsNotThereIsNamed) {
    KdcConversation nobody([](const std::string&) { return nullptr; }, soon());
    const Kerberos kerberos("example.com", nobody);
    const auto keytab = KrbKeytab::open(kerberos, "/no/such/keytab");
    ASSERT_FALSE(keytab);
    EXPECT_TRUE(keytab.error().text.starts_with("keytab /no/such/keytab: ")) << keytab.error().text;
}

}  // namespace
}  // namespace vexagent
