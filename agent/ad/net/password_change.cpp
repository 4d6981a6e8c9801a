// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/password_change.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include "agent/ad/net/kpasswd_message.h"
#include "agent/ad/net/krb_profile.h"
#include "agent/ad/net/principals.h"
#include "agent/ad/net/sockets.h"

namespace vexagent {
namespace {

constexpr std::uint16_t kPasswordPort = 464;
constexpr std::size_t kLargestPasswordReply = std::size_t{1} << 16;
constexpr char kService[] = "kadmin/changepw";

using Of = ChangeFailure::Of;

ChangeFailure failed(Of of, const KrbFailure& failure) {
    return {of, KdcFailure{static_cast<int>(failure.code), failure.text}};
}

ChangeFailure lost(const std::string& why) {
    return {Of::Service, KdcFailure{KRB5_KDC_UNREACH, why}};
}

// Sends a message that must not be sent again, and reads the reply.
Expected<std::string, ChangeFailure> exchange(int socket, const std::string& message,
                                              const Deadline& deadline) {
    const auto header = writeAll(socket, bigEndian(message.size(), 4) + message, deadline)
                            ? readExactly(socket, 4, deadline)
                            : std::nullopt;
    const std::size_t size = header ? numberIn(*header) : 0;
    std::optional<std::string> reply;
    if (size > 0 && size <= kLargestPasswordReply) reply = readExactly(socket, size, deadline);
    if (!reply) return vorn::unexpected(lost("the password service has not answered"));
    return std::move(*reply);
}

Expected<Done, ChangeFailure> outcomeOf(const PasswordReply& reply) {
    switch (reply.code) {
        case KRB5_KPASSWD_SUCCESS:
            return Done();
        case KRB5_KPASSWD_SOFTERROR:
            return vorn::unexpected(ChangeFailure{Of::NewPassword, KdcFailure{reply.code, reply.text}});
        case KRB5_KPASSWD_ACCESSDENIED:
            return vorn::unexpected(ChangeFailure{Of::Leave, KdcFailure{reply.code, reply.text}});
        default:
            return vorn::unexpected(ChangeFailure{
                Of::Service,
                KdcFailure{KRB5KRB_ERR_GENERIC, "code " + std::to_string(reply.code) + " " + reply.text}});
    }
}

}  // namespace

Expected<Done, ChangeFailure> changeByKerberos(const AdOptions& options, KdcConversation& kdc,
                                               const PasswordChange& change, const std::string& domain,
                                               const Deadline& deadline) {
    Kerberos kerberos(options.domain, kdc);
    const auto client = newPrincipal(kerberos, realmOf(domain), {change.account});
    if (!client) return vorn::unexpected(failed(Of::OldPassword, client.error()));
    auto credentials = kerberos.firstCredentials(client->get(), [&](krb5_init_creds_context creds) {
        const krb5_error_code code = krb5_init_creds_set_service(kerberos.get(), creds, kService);
        return code != 0 ? code
                         : krb5_init_creds_set_password(kerberos.get(), creds, change.oldPassword.c_str());
    });
    if (!credentials) return vorn::unexpected(failed(Of::OldPassword, credentials.error()));
    const auto socket = connectTo({kdc.answered().host, kPasswordPort}, deadline.atMost(kConnectTime));
    if (!socket) return vorn::unexpected(lost(socket.error()));
    PasswordTalk talk(kerberos);
    const auto message = talk.ask(*credentials, change.newPassword, socket->get());
    if (!message) return vorn::unexpected(failed(Of::Service, message.error()));
    const auto answer = exchange(socket->get(), *message, deadline);
    if (!answer) return vorn::unexpected(answer.error());
    const auto reply = talk.read(*answer);
    return reply ? outcomeOf(*reply) : vorn::unexpected(failed(Of::Service, reply.error()));
}

}  // namespace vexagent
