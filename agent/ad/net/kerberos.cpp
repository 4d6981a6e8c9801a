// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/kerberos.h"

#include "agent/ad/net/krb_profile.h"

namespace vexagent {
namespace {

constexpr int kMostSteps = 10;

// As the library reads it.
krb5_data dataOf(const std::string& bytes) {
    return {KV5M_DATA, static_cast<unsigned>(bytes.size()), const_cast<char*>(bytes.data())};
}

// Stands in for the library's network wherever it would use it by itself.
krb5_error_code carry(krb5_context context, void* kdc, const krb5_data* realm, const krb5_data* message,
                      krb5_data**, krb5_data** reply) {
    try {
        const auto answer = static_cast<KdcConversation*>(kdc)->exchange(
            std::string(realm->data, realm->length), {message->data, message->length}, true);
        if (!answer) return answer.error().code;
        const krb5_data bytes = dataOf(*answer);
        return krb5_copy_data(context, &bytes, reply);
    } catch (...) {
        return ENOMEM;
    }
}

// The KDC's error code in a reply; 0 when it is no error.
krb5_error_code errorIn(krb5_context context, const std::string& reply) {
    const krb5_data data = dataOf(reply);
    krb5_error* error = nullptr;
    if (krb5_rd_error(context, &data, &error) != 0) return 0;
    const krb5_error_code code = static_cast<krb5_error_code>(error->error + ERROR_TABLE_BASE_krb5);
    krb5_free_error(context, error);
    return code;
}

}  // namespace

Kerberos::Kerberos(const std::string& domain, KdcConversation& kdc)
    : m_kdc(kdc), m_context(newKrbContext(domain)) {
    krb5_set_kdc_send_hook(m_context.get(), carry, &m_kdc);
}

KrbFailure Kerberos::failure(krb5_error_code code) const {
    const char* message = krb5_get_error_message(m_context.get(), code);
    KrbFailure failure = {code, message != nullptr ? message : "unknown error"};
    krb5_free_error_message(m_context.get(), message);
    return failure;
}

Krb<Done> Kerberos::outcome(krb5_error_code code) const {
    if (code != 0) return vorn::unexpected(failure(code));
    return Done();
}

// ---------------------------------------------------------- first credentials

Krb<bool> Kerberos::step(krb5_init_creds_context context, const std::string& reply) {
    krb5_data in = dataOf(reply);
    krb5_data out{};
    krb5_data realm{};
    unsigned flags = 0;
    const krb5_error_code code = krb5_init_creds_step(get(), context, &in, &out, &realm, &flags);
    const bool more = code == 0 && (flags & KRB5_INIT_CREDS_STEP_FLAG_CONTINUE) != 0;
    if (more) {
        m_message.assign(out.data, out.length);
        m_realm.assign(realm.data, realm.length);
    }
    krb5_free_data_contents(get(), &out);
    krb5_free_data_contents(get(), &realm);
    return outcome(code).map([more](Done) { return more; });
}

Krb<Done> Kerberos::steps(krb5_init_creds_context context) {
    std::string reply;
    m_convincing = false;
    m_message.clear();
    for (int i = 0; i < kMostSteps; ++i) {
        const auto more = step(context, reply);
        if (!more) return vorn::unexpected(more.error());
        if (!*more) return Done();
        auto answer = m_kdc.exchange(m_realm, m_message, !m_convincing);
        if (!answer) {
            m_message.clear();
            return vorn::unexpected(answer.error());
        }
        reply = std::move(*answer);
        const krb5_error_code error = errorIn(get(), reply);
        // The library would go on to another way of showing the same password.
        if (m_convincing && error == KRB5KDC_ERR_PREAUTH_FAILED) return outcome(error);
        if (error == KRB5KDC_ERR_PREAUTH_REQUIRED) m_convincing = true;
    }
    return vorn::unexpected(KrbFailure{KRB5_KDCREP_MODIFIED, "the controller asks without end"});
}

Krb<KrbCredentials> Kerberos::firstCredentials(krb5_principal client, const Prepare& prepare) {
    krb5_init_creds_context context = nullptr;
    krb5_error_code code = krb5_init_creds_init(get(), client, nullptr, nullptr, 0, nullptr, &context);
    if (code != 0) return vorn::unexpected(failure(code));
    const auto freeCreds = [this](krb5_init_creds_context value) { krb5_init_creds_free(get(), value); };
    const std::unique_ptr<std::remove_pointer_t<krb5_init_creds_context>, decltype(freeCreds)> creds(
        context, freeCreds);
    code = prepare(context);
    if (code != 0) return vorn::unexpected(failure(code));
    if (const auto done = steps(context); !done) return vorn::unexpected(done.error());
    KrbCredentials credentials(get());
    code = krb5_init_creds_get_creds(get(), context, &credentials.get());
    if (code != 0) return vorn::unexpected(failure(code));
    return credentials;
}

void Kerberos::levelRefusal(const std::string& password) {
    if (m_convincing || m_message.empty()) return;
    const krb5_data text = dataOf(password), salt = dataOf(m_realm);
    krb5_keyblock key{};
    if (krb5_c_string_to_key(get(), ENCTYPE_AES256_CTS_HMAC_SHA1_96, &text, &salt, &key) == 0)
        krb5_free_keyblock_contents(get(), &key);
    static_cast<void>(m_kdc.exchange(m_realm, m_message, true));
}

// ------------------------------------------------------------------- keytab

Krb<KrbKeytab> KrbKeytab::open(const Kerberos& kerberos, const std::string& file) {
    KrbKeytab keytab(kerberos.get());
    krb5_error_code code = krb5_kt_resolve(kerberos.get(), ("FILE:" + file).c_str(), &keytab.m_keytab);
    if (code == 0) code = krb5_kt_have_content(kerberos.get(), keytab.m_keytab);
    if (code == 0) return keytab;
    KrbFailure failure = kerberos.failure(code);
    failure.text = "keytab " + file + ": " + failure.text;
    return vorn::unexpected(failure);
}

KrbPrincipal KrbKeytab::find(const std::function<bool(krb5_const_principal)>& fits) const {
    krb5_kt_cursor cursor{};
    if (krb5_kt_start_seq_get(m_context, m_keytab, &cursor) != 0) return KrbPrincipal(m_context);
    krb5_principal found = nullptr;
    krb5_keytab_entry entry{};
    while (found == nullptr && krb5_kt_next_entry(m_context, m_keytab, &entry, &cursor) == 0) {
        if (fits(entry.principal)) krb5_copy_principal(m_context, entry.principal, &found);
        krb5_free_keytab_entry_contents(m_context, &entry);
    }
    krb5_kt_end_seq_get(m_context, m_keytab, &cursor);
    return KrbPrincipal(m_context, found);
}

}  // namespace vexagent
