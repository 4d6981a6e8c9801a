// SPDX-License-Identifier: Apache-2.0
// Kerberos: its settings, first credentials, keytabs.

#include "agent/ad/net/kerberos.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/ad/net/krb_profile.h"
#include "agent/ad/net/scripted_kdc_testing.h"
#include "vorn/temporary_folder_testing.h"

namespace vexagent {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

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

// -------------------------------------------------------------- first credentials

constexpr char kAsked[] = "ann@EXAMPLE.COM for krbtgt/EXAMPLE.COM@EXAMPLE.COM";
constexpr char kProved[] = "ann@EXAMPLE.COM for krbtgt/EXAMPLE.COM@EXAMPLE.COM proved";

class FirstCredentialsTest : public ::testing::Test {
  protected:
    FirstCredentialsTest() { m_kdc.addPerson("ann@EXAMPLE.COM", "secret"); }

    Krb<KrbCredentials> fetch(const std::string& name, const std::string& password) {
        KrbPrincipal client(m_kerberos.get());
        EXPECT_EQ(krb5_parse_name(m_kerberos.get(), name.c_str(), client.place()), 0);
        return m_kerberos.firstCredentials(client.get(), [&](krb5_init_creds_context context) {
            return krb5_init_creds_set_password(m_kerberos.get(), context, password.c_str());
        });
    }
    // "yes", or the code of the failure.
    std::string outcome(const std::string& name, const std::string& password) {
        const auto fetched = fetch(name, password);
        return fetched ? "yes" : std::to_string(fetched.error().code);
    }
    std::string nameOf(krb5_const_principal principal) const {
        char* text = nullptr;
        EXPECT_EQ(krb5_unparse_name(m_kerberos.get(), principal, &text), 0);
        std::string name = text;
        krb5_free_unparsed_name(m_kerberos.get(), text);
        return name;
    }

    ScriptedKdc m_kdc;
    KdcConversation m_conversation{
        [this](const std::string& realm) { return realm == "EXAMPLE.COM" ? &m_kdc.controllers() : nullptr; },
        soon(), m_kdc.carrier()};
    Kerberos m_kerberos{"example.com", m_conversation};
};

TEST_F(FirstCredentialsTest, AreHisWhoProvesHimself) {
    auto fetched = fetch("ann@EXAMPLE.COM", "secret");
    ASSERT_TRUE(fetched) << fetched.error().text;
    EXPECT_EQ(nameOf(fetched->get().client), "ann@EXAMPLE.COM");
    EXPECT_EQ(nameOf(fetched->get().server), "krbtgt/EXAMPLE.COM@EXAMPLE.COM");
    EXPECT_GT(fetched->get().keyblock.length, 0u);
    EXPECT_THAT(m_kdc.takeAsked(), ElementsAre(kAsked, kProved));
}

TEST_F(FirstCredentialsTest, ThoseThatAreFetchedServeNobodyElse) {
    auto fetched = fetch("ann@EXAMPLE.COM", "secret");
    ASSERT_TRUE(fetched);
    EXPECT_EQ(m_kdc.options & (KDC_OPT_FORWARDABLE | KDC_OPT_PROXIABLE), 0u);
}

TEST_F(FirstCredentialsTest, AWrongPasswordIsShownOnce) {
    EXPECT_EQ(outcome("ann@EXAMPLE.COM", "wrong"), std::to_string(KRB5KDC_ERR_PREAUTH_FAILED));
    EXPECT_THAT(m_kdc.takeAsked(), ElementsAre(kAsked, kProved));
}

TEST_F(FirstCredentialsTest, WhoIsRefusedUnseenShowsNothing) {
    EXPECT_EQ(outcome("eve@EXAMPLE.COM", "x"), std::to_string(KRB5KDC_ERR_C_PRINCIPAL_UNKNOWN));
    EXPECT_EQ(m_kdc.takeAsked().size(), 1u);
    m_kdc.refuse("ann@EXAMPLE.COM", KRB5KDC_ERR_PREAUTH_FAILED);  // before it wanted to see any
    EXPECT_EQ(outcome("ann@EXAMPLE.COM", "secret"), std::to_string(KRB5KDC_ERR_PREAUTH_FAILED));
}

TEST_F(FirstCredentialsTest, AKdcThatAsksWithoutEndIsLeft) {
    m_kdc.always = m_kdc.error(KRB5KDC_ERR_PREAUTH_EXPIRED);
    const auto fetched = fetch("ann@EXAMPLE.COM", "secret");
    ASSERT_FALSE(fetched);
    EXPECT_EQ(fetched.error().code, KRB5_KDCREP_MODIFIED);
    EXPECT_EQ(fetched.error().text, "the controller asks without end");
    EXPECT_EQ(m_kdc.takeAsked().size(), 10u);
}

TEST_F(FirstCredentialsTest, WhatIsNoAnswerIsAFailure) {
    for (const char* bytes : {"x", "\x7e", "\x7e\x03\x02\x01\x05", "\x6b\x80"}) {
        m_kdc.always = bytes;
        EXPECT_FALSE(fetch("ann@EXAMPLE.COM", "secret"));
    }
}

TEST_F(FirstCredentialsTest, WhereNobodyAnswersThatIsTold) {
    m_kdc.answers = false;
    const auto fetched = fetch("ann@EXAMPLE.COM", "secret");
    ASSERT_FALSE(fetched);
    EXPECT_EQ(fetched.error().code, KRB5_KDC_UNREACH);
    EXPECT_EQ(fetched.error().text, "dc1.example.com: no answer");
    EXPECT_EQ(outcome("ann@OTHER.TEST", "secret"), std::to_string(KRB5_REALM_UNKNOWN));
}

TEST_F(FirstCredentialsTest, WithNothingToProveOneselfByNobodyIsAsked) {
    KrbPrincipal client(m_kerberos.get());
    ASSERT_EQ(krb5_parse_name(m_kerberos.get(), "ann", client.place()), 0);
    const auto fetched =
        m_kerberos.firstCredentials(client.get(), [](krb5_init_creds_context) { return KRB5_KT_NOTFOUND; });
    ASSERT_FALSE(fetched);
    EXPECT_EQ(fetched.error().code, KRB5_KT_NOTFOUND);
    EXPECT_THAT(m_kdc.takeAsked(), IsEmpty());
}

TEST_F(FirstCredentialsTest, ARefusalUnseenIsMadeAsLongAsOneOfAWrongPassword) {
    outcome("eve@EXAMPLE.COM", "x");
    m_kdc.takeAsked();
    m_kerberos.levelRefusal("x");
    EXPECT_THAT(m_kdc.takeAsked(), ElementsAre("eve@EXAMPLE.COM for krbtgt/EXAMPLE.COM@EXAMPLE.COM"));
    outcome("ann@EXAMPLE.COM", "wrong");
    m_kdc.takeAsked();
    m_kerberos.levelRefusal("wrong");
    EXPECT_THAT(m_kdc.takeAsked(), IsEmpty());
}

TEST_F(FirstCredentialsTest, WhereNobodyAnsweredNothingIsMadeLonger) {
    m_kerberos.levelRefusal("x");
    outcome("eve@EXAMPLE.COM", "x");
    m_kdc.takeAsked();
    m_kdc.answers = false;
    outcome("eve@EXAMPLE.COM", "x");
    m_kdc.answers = true;
    m_kerberos.levelRefusal("x");
    EXPECT_THAT(m_kdc.takeAsked(), IsEmpty());
}

// ------------------------------------------------------------------------- keytabs

class KeytabTest : public ::testing::Test {
  protected:
    KeytabTest() {
        for (const char* name : {"A@X", "B/c@X", "D@X"}) ScriptedKdc::writeKey(name, m_file, "key");
    }
    // The name that is found, of those with so many parts.
    std::string find(int parts) {
        const auto keytab = KrbKeytab::open(m_kerberos, m_file);
        EXPECT_TRUE(keytab);
        m_seen = 0;
        const KrbPrincipal found = keytab->find([&](krb5_const_principal name) {
            ++m_seen;
            return name->length == parts;
        });
        if (found.get() == nullptr) return "nobody";
        char* text = nullptr;
        EXPECT_EQ(krb5_unparse_name(m_kerberos.get(), found.get(), &text), 0);
        std::string name = text;
        krb5_free_unparsed_name(m_kerberos.get(), text);
        return name;
    }

    vorn::test::TemporaryFolder m_folder;
    const std::string m_file = m_folder.file("keytab");
    KdcConversation m_nobody{[](const std::string&) { return nullptr; }, soon()};
    Kerberos m_kerberos{"example.com", m_nobody};
    int m_seen = 0;
};

TEST_F(KeytabTest, TheFirstNameThatFitsIsFound) {
    EXPECT_EQ(find(1), "A@X");
    EXPECT_EQ(m_seen, 1);
    EXPECT_EQ(find(2), "B/c@X");
    EXPECT_EQ(m_seen, 2);
    EXPECT_EQ(find(3), "nobody");
    EXPECT_EQ(m_seen, 3);
}

TEST_F(KeytabTest, OneThatHasGoneHoldsNoName) {
    const auto keytab = KrbKeytab::open(m_kerberos, m_file);
    ASSERT_TRUE(keytab);
    ASSERT_EQ(std::remove(m_file.c_str()), 0);
    EXPECT_EQ(keytab->find([](krb5_const_principal) { return true; }).get(), nullptr);
}

TEST_F(KeytabTest, WhatIsNoKeytabIsNamed) {
    const auto keytab = KrbKeytab::open(m_kerberos, m_folder.write("other", "nothing of the kind"));
    ASSERT_FALSE(keytab);
    EXPECT_TRUE(keytab.error().text.starts_with("keytab " + m_folder.file("other") + ": "));
}

}  // namespace
}  // namespace vexagent
