// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/tls_context.h"

#include <gtest/gtest.h>

#include "vorn/temporary_folder_testing.h"

namespace vexagent {
namespace {

// A connection that is not connected, and what it uses for TLS.
class Connection {
  public:
    Connection(TlsContext& context, const std::string& authorities) {
        EXPECT_EQ(ldap_initialize(&m_ldap, nullptr), LDAP_SUCCESS);
        ldap_set_option(m_ldap, LDAP_OPT_X_TLS_CACERTFILE, authorities.c_str());
        m_given = context.give(m_ldap, authorities);
    }
    ~Connection() { ldap_unbind_ext(m_ldap, nullptr, nullptr); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    bool given() const { return m_given; }
    const void* context() const {
        void* context = nullptr;
        EXPECT_EQ(ldap_get_option(m_ldap, LDAP_OPT_X_TLS_CTX, &context), LDAP_OPT_SUCCESS);
        return context;
    }

  private:
    LDAP* m_ldap = nullptr;
    bool m_given = false;
};

// An authority of the tests' own, for no host.
constexpr char kAuthority[] =
    "-----BEGIN CERTIFICATE-----\n"
    "MIIBdTCCARugAwIBAgIUBeJhNtKp3BrtD7D3+71JVx5La64wCgYIKoZIzj0EAwIw\n"
    "DzENMAsGA1UEAwwEdGVzdDAgFw0yNjExMjIxNDMxMDVaGA8yMTI2MTAyOTE0MzEw\n"
    "NVowDzENMAsGA1UEAwwEdGVzdDBZMBMGByqGSM49AgEGCCqGSM49AwEHA0IABEjS\n"
    "RICY8wYJSR2/0KlAZtrElh4StalHSjoL+VpUe91xsIze7skRRgOD8PfIVhBKNBvH\n"
    "DYK7nx1erTxIBUScxUejUzBRMB0GA1UdDgQWBBSXUmcQFd98I6CBZjEBM9SOUdWC\n"
    "tTAfBgNVHSMEGDAWgBSXUmcQFd98I6CBZjEBM9SOUdWCtTAPBgNVHRMBAf8EBTAD\n"
    "AQH/MAoGCCqGSM49BAMCA0gAMEUCIQCsABqdFOy/0pGQ8u+HvnDl2ztpoSWZyXTd\n"
    "TNAJP3qAagIgNSjkiSs+/Fym7+/kG4kcexZJ6GuSFyhPqpCgEGIdiqI=\n"
    "-----END CERTIFICATE-----\n";

class TlsContextTest : public testing::Test {
  protected:
    std::string write(const std::string& text) { return m_folder.write("ca.pem", text); }

    vorn::test::TemporaryFolder m_folder;
    TlsContext m_context;
};

TEST_F(TlsContextTest, ConnectionsShareIt) {
    const std::string file = write(kAuthority);
    const Connection first(m_context, file), second(m_context, file);
    EXPECT_TRUE(first.given());
    EXPECT_TRUE(second.given());
    EXPECT_NE(first.context(), nullptr);
    EXPECT_EQ(first.context(), second.context());
}

TEST_F(TlsContextTest, OutlivesTheConnectionThatItWasMadeFor) {
    const std::string file = write(kAuthority);
    const void* made = Connection(m_context, file).context();
    EXPECT_EQ(Connection(m_context, file).context(), made);
}

TEST_F(TlsContextTest, OtherAuthoritiesMakeAnotherOne) {
    const std::string file = write(kAuthority);
    const Connection first(m_context, file);
    write(std::string(kAuthority) + kAuthority);
    const Connection second(m_context, file), third(m_context, file);
    EXPECT_NE(first.context(), second.context());
    EXPECT_EQ(second.context(), third.context());
}

TEST_F(TlsContextTest, AuthoritiesThatCannotBeReadMakeNone) {
    EXPECT_FALSE(Connection(m_context, m_folder.file("missing.pem")).given());
    EXPECT_TRUE(Connection(m_context, write(kAuthority)).given());
    EXPECT_FALSE(Connection(m_context, m_folder.file("missing.pem")).given());
}

}  // namespace
}  // namespace vexagent
