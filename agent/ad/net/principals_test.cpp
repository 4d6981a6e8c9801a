// SPDX-License-Identifier: Apache-2.0
// Which names a keytab and a setting make of the machine.

#include "agent/ad/net/principals.h"

#include <gtest/gtest.h>

#include "agent/ad/net/scripted_kdc_testing.h"
#include "vorn/temporary_folder_testing.h"

namespace vexagent {
namespace {

class PrincipalsTest : public ::testing::Test {
  protected:
    PrincipalsTest() { m_options.domain = "Example.com"; }

    KrbKeytab keytabOf(std::initializer_list<const char*> names) {
        m_options.account.keytab = m_folder.file("keytab" + std::to_string(++m_keytabs));
        for (const char* name : names) ScriptedKdc::writeKey(name, m_options.account.keytab, "key");
        auto keytab = KrbKeytab::open(m_kerberos, m_options.account.keytab);
        EXPECT_TRUE(keytab);
        return std::move(*keytab);
    }
    std::string text(krb5_const_principal principal) const {
        if (principal == nullptr) return "nobody";
        char* text = nullptr;
        EXPECT_EQ(krb5_unparse_name(m_kerberos.get(), principal, &text), 0);
        std::string name = text;
        krb5_free_unparsed_name(m_kerberos.get(), text);
        return name;
    }
    std::string machine(std::initializer_list<const char*> names) {
        const KrbKeytab keytab = keytabOf(names);
        return text(machineName(m_kerberos, keytab, m_options).get());
    }
    std::string own(std::initializer_list<const char*> names) {
        const KrbKeytab keytab = keytabOf(names);
        return text(ownName(m_kerberos, keytab, m_options).get());
    }

    vorn::test::TemporaryFolder m_folder;
    AdOptions m_options;
    int m_keytabs = 0;
    KdcConversation m_nobody{[](const std::string&) { return nullptr; },
                             Deadline(vorn::systemSteadyClock(), milliseconds(60'000))};
    Kerberos m_kerberos{"example.com", m_nobody};
};

TEST_F(PrincipalsTest, ANameHasOnePartOrTwo) {
    const auto one = newPrincipal(m_kerberos, "X.TEST", "a b/c");
    ASSERT_TRUE(one);
    EXPECT_EQ(text(one->get()), "a b\\/c@X.TEST");
    const auto two = newPrincipal(m_kerberos, "X.TEST", "ldap", "dc1.x.test");
    ASSERT_TRUE(two);
    EXPECT_EQ(text(two->get()), "ldap/dc1.x.test@X.TEST");
    EXPECT_EQ(nameWithoutRealm(m_kerberos, two->get()), "ldap/dc1.x.test");
    EXPECT_TRUE(isInRealm(two->get(), "X.TEST"));
    EXPECT_FALSE(isInRealm(two->get(), "X.TES"));
    EXPECT_FALSE(isInRealm(two->get(), "x.test"));
}

TEST_F(PrincipalsTest, TheMachineIsTheFirstNameOfTheRealmThatEndsWithADollar) {
    EXPECT_EQ(machine({"host/web@EXAMPLE.COM", "WEB$@OTHER.TEST", "web@EXAMPLE.COM", "a/b$@EXAMPLE.COM",
                       "WEB$@EXAMPLE.COM", "OLD$@EXAMPLE.COM"}),
              "WEB$@EXAMPLE.COM");
    EXPECT_EQ(machine({"host/web@EXAMPLE.COM", "web@EXAMPLE.COM"}), "nobody");
}

TEST_F(PrincipalsTest, TheSettingNamesTheMachineWhateverTheKeytabHolds) {
    m_options.account.principal = "nfs/web.example.com";
    EXPECT_EQ(machine({"WEB$@EXAMPLE.COM"}), "nfs/web.example.com@EXAMPLE.COM");
    m_options.account.principal = "a@b@c";
    EXPECT_EQ(machine({"WEB$@EXAMPLE.COM"}), "nobody");
}

TEST_F(PrincipalsTest, TicketsForTheHostAreMadeOutToItsFirstHostName) {
    EXPECT_EQ(own({"WEB$@EXAMPLE.COM", "host/web@OTHER.TEST", "nfs/web@EXAMPLE.COM", "host@EXAMPLE.COM",
                   "host/a/b@EXAMPLE.COM", "HOST/web@EXAMPLE.COM", "host/web.example.com@EXAMPLE.COM"}),
              "HOST/web@EXAMPLE.COM");
    EXPECT_EQ(own({"nfs/web@EXAMPLE.COM", "WEB$@EXAMPLE.COM"}), "WEB$@EXAMPLE.COM");
    EXPECT_EQ(own({"nfs/web@EXAMPLE.COM"}), "nobody");
}

}  // namespace
}  // namespace vexagent
