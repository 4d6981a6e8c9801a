// SPDX-License-Identifier: Apache-2.0
// The messages of Kerberos' password service (RFC 3244).
#pragma once

#include <string>
#include <string_view>

#include "agent/ad/net/kerberos.h"

namespace vexagent {

// A number in network order, in so many bytes; and the number that bytes are.
std::string bigEndian(std::size_t number, int bytes);
std::size_t numberIn(std::string_view bytes);

struct PasswordReply {
    int code = 0;      // KRB5_KPASSWD_...
    std::string text;  // printable
};

// One request and its reply. The Kerberos library outlives it.
class PasswordTalk {
  public:
    explicit PasswordTalk(const Kerberos& kerberos) : m_kerberos(kerberos) {}
    ~PasswordTalk();
    PasswordTalk(const PasswordTalk&) = delete;
    PasswordTalk& operator=(const PasswordTalk&) = delete;

    // With a ticket for the service. The socket is connected: its address is in the message.
    Krb<std::string> ask(KrbCredentials& ticket, const std::string& newPassword, int socket);
    // Of the one that has the ticket's key, or why it is not.
    Krb<PasswordReply> read(std::string_view reply);

  private:
    krb5_error_code useAddressOf(int socket);
    krb5_error_code verify(std::string_view proof);
    Krb<PasswordReply> readError(std::string_view error) const;

    const Kerberos& m_kerberos;
    krb5_auth_context m_context = nullptr;
};

}  // namespace vexagent
