// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/kpasswd_message.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include "vorn/secret.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

constexpr std::size_t kHeaderBytes = 6;  // the size of all, the version, the size of the proof
constexpr std::size_t kVersion = 1;

krb5_data dataOf(std::string_view bytes) {
    return {KV5M_DATA, static_cast<unsigned>(bytes.size()), const_cast<char*>(bytes.data())};
}

// What the library hands out; it may be secret.
class KrbData {
  public:
    explicit KrbData(krb5_context context) : m_context(context) {}
    ~KrbData() {
        if (m_value.data != nullptr) vorn::wipe(m_value.data, m_value.length);
        krb5_free_data_contents(m_context, &m_value);
    }
    KrbData(const KrbData&) = delete;
    KrbData& operator=(const KrbData&) = delete;
    krb5_data* place() { return &m_value; }
    std::string_view bytes() const { return {m_value.data, m_value.length}; }

  private:
    const krb5_context m_context;
    krb5_data m_value{};
};

PasswordReply replyIn(std::string_view result) {
    if (result.size() < 2) return {KRB5_KPASSWD_MALFORMED, "a reply without a code"};
    return {static_cast<int>(numberIn(result.substr(0, 2))), vorn::printable(result.substr(2, 200))};
}

}  // namespace

std::string bigEndian(std::size_t number, int bytes) {
    std::string text;
    for (int at = bytes - 1; at >= 0; --at) text.push_back(static_cast<char>(number >> (8 * at) & 0xFF));
    return text;
}

std::size_t numberIn(std::string_view bytes) {
    std::size_t number = 0;
    for (const char byte : bytes) number = number << 8 | static_cast<unsigned char>(byte);
    return number;
}

PasswordTalk::~PasswordTalk() {
    if (m_context != nullptr) krb5_auth_con_free(m_kerberos.get(), m_context);
}

krb5_error_code PasswordTalk::useAddressOf(int socket) {
    sockaddr_storage own{};
    socklen_t size = sizeof own;
    if (::getsockname(socket, reinterpret_cast<sockaddr*>(&own), &size) != 0) return KRB5_LOCAL_ADDR_REQUIRED;
    krb5_address address{KV5M_ADDRESS, ADDRTYPE_INET, sizeof(in_addr), nullptr};
    address.contents = reinterpret_cast<krb5_octet*>(&reinterpret_cast<sockaddr_in*>(&own)->sin_addr);
    if (own.ss_family == AF_INET6) {
        address.addrtype = ADDRTYPE_INET6;
        address.length = sizeof(in6_addr);
        address.contents = reinterpret_cast<krb5_octet*>(&reinterpret_cast<sockaddr_in6*>(&own)->sin6_addr);
    }
    return krb5_auth_con_setaddrs(m_kerberos.get(), m_context, &address, nullptr);
}

Krb<std::string> PasswordTalk::ask(KrbCredentials& ticket, const std::string& newPassword, int socket) {
    const krb5_context context = m_kerberos.get();
    KrbData proof(context);
    KrbData sealed(context);
    krb5_error_code code = krb5_auth_con_init(context, &m_context);
    if (code == 0) code = krb5_auth_con_setflags(context, m_context, KRB5_AUTH_CONTEXT_DO_SEQUENCE);
    if (code == 0)
        code = krb5_mk_req_extended(context, &m_context, AP_OPTS_USE_SUBKEY, nullptr, &ticket.get(),
                                    proof.place());
    if (code == 0) code = useAddressOf(socket);
    const krb5_data password = dataOf(newPassword);
    if (code == 0) code = krb5_mk_priv(context, m_context, &password, sealed.place(), nullptr);
    if (code != 0) return vorn::unexpected(m_kerberos.failure(code));
    const std::size_t size = kHeaderBytes + proof.bytes().size() + sealed.bytes().size();
    if (size > 0xFFFF) return vorn::unexpected(m_kerberos.failure(KRB5_BAD_MSIZE));
    std::string message = bigEndian(size, 2) + bigEndian(kVersion, 2) + bigEndian(proof.bytes().size(), 2);
    return message.append(proof.bytes()).append(sealed.bytes());
}

// The reply is sealed with the key that the request was sealed with, whatever other one the
// service proposes with its proof.
krb5_error_code PasswordTalk::verify(std::string_view proof) {
    const krb5_context context = m_kerberos.get();
    krb5_keyblock* key = nullptr;
    krb5_ap_rep_enc_part* part = nullptr;
    const krb5_data data = dataOf(proof);
    krb5_error_code code = krb5_auth_con_getsendsubkey(context, m_context, &key);
    if (code == 0) code = krb5_rd_rep(context, m_context, &data, &part);
    if (code == 0) code = krb5_auth_con_setrecvsubkey(context, m_context, key);
    if (part != nullptr) krb5_free_ap_rep_enc_part(context, part);
    krb5_free_keyblock(context, key);
    return code;
}

// Before it knows who asks, the service can only answer in clear: nothing is done then.
Krb<PasswordReply> PasswordTalk::readError(std::string_view error) const {
    const krb5_data data = dataOf(error);
    krb5_error* parsed = nullptr;
    if (const krb5_error_code code = krb5_rd_error(m_kerberos.get(), &data, &parsed); code != 0)
        return vorn::unexpected(m_kerberos.failure(code));
    PasswordReply reply = replyIn({parsed->e_data.data, parsed->e_data.length});
    krb5_free_error(m_kerberos.get(), parsed);
    if (reply.code == KRB5_KPASSWD_SUCCESS) reply.code = KRB5_KPASSWD_HARDERROR;
    return reply;
}

Krb<PasswordReply> PasswordTalk::read(std::string_view reply) {
    const krb5_context context = m_kerberos.get();
    const auto malformed = [this] { return vorn::unexpected(m_kerberos.failure(KRB5KRB_AP_ERR_MODIFIED)); };
    if (!reply.empty() && reply[0] == 0x7E) return readError(reply);
    if (reply.size() < kHeaderBytes || numberIn(reply.substr(0, 2)) != reply.size()) return malformed();
    const std::size_t proof = numberIn(reply.substr(4, 2));
    const std::string_view rest = reply.substr(kHeaderBytes);
    if (proof == 0) return readError(rest);
    if (m_context == nullptr || proof >= rest.size()) return malformed();
    krb5_error_code code = verify(rest.substr(0, proof));
    const krb5_data sealed = dataOf(rest.substr(proof));
    KrbData result(context);
    if (code == 0) code = krb5_rd_priv(context, m_context, &sealed, result.place(), nullptr);
    if (code != 0) return vorn::unexpected(m_kerberos.failure(code));
    return replyIn(result.bytes());
}

}  // namespace vexagent
