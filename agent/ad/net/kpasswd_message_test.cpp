// SPDX-License-Identifier: Apache-2.0
// What a password service may send. That it is understood when it is in order, the tests
// with a domain show.
#include "agent/ad/net/kpasswd_message.h"

#include <gtest/gtest.h>

#include "agent/ad/net/krb_profile.h"
#include "vorn/clock_testing.h"

namespace vexagent {
namespace {

TEST(KpasswdNumbers, AreInNetworkOrder) {
    EXPECT_EQ(bigEndian(0x1234, 2), "\x12\x34");
    EXPECT_EQ(bigEndian(7, 4), std::string("\0\0\0\x07", 4));
    EXPECT_EQ(numberIn("\x12\x34"), 0x1234u);
    EXPECT_EQ(numberIn(std::string_view("\0\0\xFF\xFF", 4)), 0xFFFFu);
    EXPECT_EQ(numberIn(""), 0u);
}

class KpasswdReply : public ::testing::Test {
  protected:
    KpasswdReply()
        : m_kdc([](const std::string&) { return nullptr; }, Deadline(m_clock, milliseconds(1000))),
          m_kerberos("example.com", m_kdc) {}

    // The code; -1 for a reply that is none.
    int read(const std::string& bytes) {
        PasswordTalk talk(m_kerberos);
        const auto reply = talk.read(bytes);
        return reply ? reply->code : -1;
    }
    // A KRB-ERROR with this in its e-data.
    std::string error(const std::string& data) {
        krb5_error parts{};
        parts.magic = KV5M_ERROR;
        parts.error = 60;
        char realm[] = "EXAMPLE.COM";
        krb5_principal server = nullptr;
        EXPECT_EQ(krb5_build_principal(m_kerberos.get(), &server, sizeof realm - 1, realm, "kadmin",
                                       "changepw", nullptr),
                  0);
        parts.server = server;
        parts.e_data = {KV5M_DATA, static_cast<unsigned>(data.size()), const_cast<char*>(data.data())};
        krb5_data out{};
        EXPECT_EQ(krb5_mk_error(m_kerberos.get(), &parts, &out), 0);
        std::string bytes(out.data, out.length);
        krb5_free_data_contents(m_kerberos.get(), &out);
        krb5_free_principal(m_kerberos.get(), server);
        return bytes;
    }
    static std::string framed(const std::string& proof, const std::string& rest) {
        return bigEndian(6 + proof.size() + rest.size(), 2) + bigEndian(1, 2) + bigEndian(proof.size(), 2) +
               proof + rest;
    }

    vorn::test::ManualClock m_clock;
    KdcConversation m_kdc;
    Kerberos m_kerberos;
};

TEST_F(KpasswdReply, ThatIsMalformedIsNone) {
    for (const std::string& bytes :
         {std::string(), std::string("x"), std::string(6, '\0'), framed("", ""), framed("proof", ""),
          framed("proof", "sealed"), framed("", "no error"), framed("", "sealed") + "more",
          std::string("\x7E"), std::string(70'000, 'x')})
        EXPECT_EQ(read(bytes), -1) << bytes.size();
}

TEST_F(KpasswdReply, InClearTellsAFailure) {
    EXPECT_EQ(read(framed("", error(std::string("\0\x03", 2) + "who?"))), KRB5_KPASSWD_AUTHERROR);
    EXPECT_EQ(read(error(std::string("\0\x05", 2))), KRB5_KPASSWD_ACCESSDENIED);
    EXPECT_EQ(read(error("")), KRB5_KPASSWD_MALFORMED);
}

// Anybody on the way could have written it.
TEST_F(KpasswdReply, InClearIsNeverSuccess) {
    EXPECT_EQ(read(framed("", error(std::string("\0\0", 2)))), KRB5_KPASSWD_HARDERROR);
}

}  // namespace
}  // namespace vexagent
