// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/scripted_kdc_testing.h"

#include <algorithm>
#include <ctime>
#include <stdexcept>

#include "agent/ad/net/krb_profile.h"

// What KDCs that are built on the library use, and no header of it names.
extern "C" {
krb5_error_code decode_krb5_as_req(const krb5_data* bytes, krb5_kdc_req** request);
krb5_error_code decode_krb5_tgs_req(const krb5_data* bytes, krb5_kdc_req** request);
krb5_error_code decode_krb5_ap_req(const krb5_data* bytes, krb5_ap_req** request);
krb5_error_code decode_krb5_authenticator(const krb5_data* bytes, krb5_authenticator** authenticator);
krb5_error_code decode_krb5_enc_data(const krb5_data* bytes, krb5_enc_data** encrypted);
krb5_error_code krb5_encrypt_tkt_part(krb5_context context, const krb5_keyblock* key, krb5_ticket* ticket);
krb5_error_code krb5_decrypt_tkt_part(krb5_context context, const krb5_keyblock* key, krb5_ticket* ticket);
krb5_error_code krb5_encode_kdc_rep(krb5_context context, krb5_msgtype type,
                                    const krb5_enc_kdc_rep_part* inner, int usesSubkey,
                                    const krb5_keyblock* key, krb5_kdc_rep* reply, krb5_data** bytes);
void krb5_free_kdc_req(krb5_context context, krb5_kdc_req* request);
void krb5_free_ap_req(krb5_context context, krb5_ap_req* request);
}

namespace vexagent {
namespace {

constexpr krb5_enctype kCipher = ENCTYPE_AES256_CTS_HMAC_SHA1_96;
constexpr krb5_kvno kVersion = 1;
// What is known of how to prove oneself: by an encrypted time, with an AES key.
constexpr std::string_view kHowToProve(
    "\x30\x1f\x30\x09\xa1\x03\x02\x01\x02\xa2\x02\x04\x00"
    "\x30\x12\xa1\x03\x02\x01\x13\xa2\x0b\x04\x09\x30\x07\x30\x05\xa0\x03\x02\x01\x12",
    33);

void check(krb5_error_code code) {
    if (code != 0) throw std::runtime_error("the scripted KDC fails: " + std::to_string(code));
}

krb5_data dataOf(std::string_view bytes) {
    return {KV5M_DATA, static_cast<unsigned>(bytes.size()), const_cast<char*>(bytes.data())};
}

// A key that is freed.
class Key {
  public:
    explicit Key(krb5_context context) : m_context(context) {}
    Key(krb5_context context, const std::string& name, const std::string& password) : m_context(context) {
        KrbName principal(context, name);
        krb5_data salt{};
        check(krb5_principal2salt(context, principal.value, &salt));
        const krb5_data text = dataOf(password);
        const krb5_error_code code = krb5_c_string_to_key(context, kCipher, &text, &salt, &value);
        krb5_free_data_contents(context, &salt);
        check(code);
    }
    ~Key() { krb5_free_keyblock_contents(m_context, &value); }
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;

    struct KrbName {
        KrbName(krb5_context context, const std::string& name) : m_context(context) {
            check(krb5_parse_name(context, name.c_str(), &value));
        }
        ~KrbName() { krb5_free_principal(m_context, value); }
        KrbName(const KrbName&) = delete;
        KrbName& operator=(const KrbName&) = delete;
        krb5_principal value = nullptr;

      private:
        const krb5_context m_context;
    };

    krb5_keyblock value{};

  private:
    const krb5_context m_context;
};

// What is encrypted, in the clear; empty where the key is another one.
std::string decrypted(krb5_context context, const krb5_keyblock& key, krb5_keyusage usage,
                      const krb5_enc_data& encrypted) {
    std::string clear(encrypted.ciphertext.length, '\0');
    krb5_data out = dataOf(clear);
    if (krb5_c_decrypt(context, &key, usage, nullptr, &encrypted, &out) != 0) return {};
    clear.resize(out.length);
    return clear;
}

const krb5_pa_data* find(const krb5_kdc_req& request, krb5_preauthtype type) {
    for (krb5_pa_data** data = request.padata; data != nullptr && *data != nullptr; ++data)
        if ((*data)->pa_type == type) return *data;
    return nullptr;
}

std::string_view bytesOf(const krb5_pa_data& data) {
    return {reinterpret_cast<const char*>(data.contents), data.length};
}

std::string taken(krb5_context context, krb5_data* data) {
    std::string bytes(data->data, data->length);
    krb5_free_data(context, data);
    return bytes;
}

}  // namespace

ScriptedKdc::ScriptedKdc() : m_context(newKrbContext("example.com")) {
    m_controllers.set({{{"dc1.example.com", 389}, 0}});
}

void ScriptedKdc::addPerson(const std::string& name, const std::string& password) {
    m_passwords[name] = password;
}

void ScriptedKdc::addKey(const std::string& name, const std::string& keytab, const std::string& password) {
    m_passwords[name] = password;
    writeKey(name, keytab, password);
}

void ScriptedKdc::writeKey(const std::string& name, const std::string& keytab, const std::string& password) {
    const std::unique_ptr<std::remove_pointer_t<krb5_context>, FreeContext> context(
        newKrbContext("example.com"));
    krb5_keytab file = nullptr;
    check(krb5_kt_resolve(context.get(), ("WRFILE:" + keytab).c_str(), &file));
    const Key key(context.get(), name, password);
    const Key::KrbName principal(context.get(), name);
    krb5_keytab_entry entry{};
    entry.principal = principal.value;
    entry.vno = kVersion;
    entry.key = key.value;
    const krb5_error_code code = krb5_kt_add_entry(context.get(), file, &entry);
    krb5_kt_close(context.get(), file);
    check(code);
}

KdcCarrier ScriptedKdc::carrier() {
    return [this](const Peer& peer, std::string_view message,
                  const Deadline&) -> Expected<std::string, KdcLoss> {
        if (!answers) return vorn::unexpected(KdcLoss{peer.host + ": no answer", true});
        return answer(message);
    };
}

std::string ScriptedKdc::nameOf(krb5_const_principal principal) const {
    char* text = nullptr;
    check(krb5_unparse_name(m_context.get(), principal, &text));
    std::string name = text;
    krb5_free_unparsed_name(m_context.get(), text);
    return name;
}

std::string ScriptedKdc::passwordOf(const std::string& name) const {
    const auto known = m_passwords.find(name);
    return known == m_passwords.end() ? name : known->second;
}

krb5_error_code ScriptedKdc::refusalOf(const std::string& name) const {
    const auto refusal = m_refusals.find(name);
    return refusal == m_refusals.end() ? 0 : refusal->second;
}

std::string ScriptedKdc::error(krb5_error_code code) const {
    const Key::KrbName server(m_context.get(), "krbtgt/EXAMPLE.COM@EXAMPLE.COM");
    krb5_error error{};
    error.stime = static_cast<krb5_timestamp>(std::time(nullptr));
    error.error = static_cast<krb5_ui_4>(code - ERROR_TABLE_BASE_krb5);
    error.server = server.value;
    if (code == KRB5KDC_ERR_PREAUTH_REQUIRED) error.e_data = dataOf(kHowToProve);
    krb5_data bytes{};
    check(krb5_mk_error(m_context.get(), &error, &bytes));
    std::string text(bytes.data, bytes.length);
    krb5_free_data_contents(m_context.get(), &bytes);
    return text;
}

std::string ScriptedKdc::answer(std::string_view message) {
    const krb5_data bytes = dataOf(message);
    krb5_kdc_req* request = nullptr;
    const bool first = decode_krb5_as_req(&bytes, &request) == 0;
    if (!first) check(decode_krb5_tgs_req(&bytes, &request));
    const auto freeRequest = [this](krb5_kdc_req* value) { krb5_free_kdc_req(m_context.get(), value); };
    const std::unique_ptr<krb5_kdc_req, decltype(freeRequest)> owner(request, freeRequest);
    options = request->kdc_options;
    std::string usual = first ? answerFirst(*request) : answerByTicket(*request);
    return always.empty() ? usual : always;
}

std::string ScriptedKdc::answerFirst(const krb5_kdc_req& request) {
    const std::string client = nameOf(request.client), server = nameOf(request.server);
    const krb5_pa_data* proof = find(request, KRB5_PADATA_ENC_TIMESTAMP);
    m_asked.push_back(client + " for " + server + (proof != nullptr ? " proved" : ""));
    for (const std::string& name : {client, server})
        if (const krb5_error_code refusal = refusalOf(name); refusal != 0) return error(refusal);
    if (!m_passwords.contains(client)) return error(KRB5KDC_ERR_C_PRINCIPAL_UNKNOWN);
    if (proof == nullptr) return error(KRB5KDC_ERR_PREAUTH_REQUIRED);
    const Key key(m_context.get(), client, passwordOf(client));
    const krb5_data bytes = dataOf(bytesOf(*proof));
    krb5_enc_data* time = nullptr;
    check(decode_krb5_enc_data(&bytes, &time));
    const bool proved = !decrypted(m_context.get(), key.value, KRB5_KEYUSAGE_AS_REQ_PA_ENC_TS, *time).empty();
    krb5_free_data_contents(m_context.get(), &time->ciphertext);
    std::free(time);
    return proved ? ticketFor(request, request.client, KRB5_AS_REP, key.value)
                  : error(KRB5KDC_ERR_PREAUTH_FAILED);
}

std::string ScriptedKdc::answerByTicket(const krb5_kdc_req& request) {
    krb5_context context = m_context.get();
    const krb5_pa_data* shown = find(request, KRB5_PADATA_TGS_REQ);
    if (shown == nullptr) return error(KRB5KDC_ERR_PADATA_TYPE_NOSUPP);
    const krb5_data bytes = dataOf(bytesOf(*shown));
    krb5_ap_req* header = nullptr;
    check(decode_krb5_ap_req(&bytes, &header));
    const auto freeHeader = [context](krb5_ap_req* value) { krb5_free_ap_req(context, value); };
    const std::unique_ptr<krb5_ap_req, decltype(freeHeader)> owner(header, freeHeader);
    const std::string giver = nameOf(header->ticket->server);
    const Key key(context, giver, passwordOf(giver));
    check(krb5_decrypt_tkt_part(context, &key.value, header->ticket));
    const krb5_enc_tkt_part& ticket = *header->ticket->enc_part2;
    const std::string server = nameOf(request.server);
    m_asked.push_back(nameOf(ticket.client) + " for " + server + " by ticket");
    if (const krb5_error_code refusal = refusalOf(server); refusal != 0) return error(refusal);
    const std::string clear =
        decrypted(context, *ticket.session, KRB5_KEYUSAGE_TGS_REQ_AUTH, header->authenticator);
    const krb5_data clearBytes = dataOf(clear);
    krb5_authenticator* authenticator = nullptr;
    check(decode_krb5_authenticator(&clearBytes, &authenticator));
    const auto freeIt = [context](krb5_authenticator* value) { krb5_free_authenticator(context, value); };
    const std::unique_ptr<krb5_authenticator, decltype(freeIt)> holder(authenticator, freeIt);
    return ticketFor(request, ticket.client, KRB5_TGS_REP, *authenticator->subkey);
}

std::string ScriptedKdc::ticketFor(const krb5_kdc_req& request, krb5_principal client, krb5_msgtype type,
                                   const krb5_keyblock& replyKey) {
    krb5_context context = m_context.get();
    const std::string server = nameOf(request.server);
    const Key serverKey(context, server, passwordOf(server));
    Key session(context);
    check(krb5_c_make_random_key(context, kCipher, &session.value));
    const auto now = static_cast<krb5_timestamp>(std::time(nullptr));
    auto end = static_cast<krb5_timestamp>(now + lifetime);
    if (request.till != 0) end = std::min(end, request.till);
    const krb5_ticket_times times = {now, now, end, 0};
    const krb5_flags flags = type == KRB5_AS_REP ? TKT_FLG_INITIAL | TKT_FLG_PRE_AUTH : TKT_FLG_PRE_AUTH;

    krb5_enc_tkt_part sealed{};
    sealed.flags = flags;
    sealed.session = &session.value;
    sealed.client = client;
    sealed.transited.tr_type = KRB5_DOMAIN_X500_COMPRESS;
    sealed.times = times;
    krb5_ticket ticket{};
    ticket.server = request.server;
    ticket.enc_part2 = &sealed;
    check(krb5_encrypt_tkt_part(context, &serverKey.value, &ticket));
    ticket.enc_part.kvno = kVersion;

    krb5_last_req_entry never{};
    krb5_last_req_entry* last[] = {&never, nullptr};
    krb5_enc_kdc_rep_part inner{};
    inner.msg_type = type;
    inner.session = &session.value;
    inner.last_req = last;
    inner.nonce = request.nonce;
    inner.flags = flags;
    inner.times = times;
    inner.server = request.server;
    krb5_kdc_rep reply{};
    reply.msg_type = type;
    reply.client = client;
    reply.ticket = &ticket;
    reply.enc_part.enctype = kCipher;
    krb5_data* bytes = nullptr;
    const krb5_error_code code =
        krb5_encode_kdc_rep(context, type, &inner, type == KRB5_TGS_REP, &replyKey, &reply, &bytes);
    krb5_free_data_contents(context, &ticket.enc_part.ciphertext);
    krb5_free_data_contents(context, &reply.enc_part.ciphertext);
    check(code);
    return taken(context, bytes);
}

}  // namespace vexagent
