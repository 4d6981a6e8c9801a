// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/password_check.h"

#include <optional>

#include "agent/ad/net/krb_profile.h"
#include "agent/ad/net/principals.h"

namespace vexagent {
namespace {

KdcFailure refused(const KrbFailure& failure) {
    return {static_cast<int>(failure.code), failure.text};
}

KdcFailure unverified(const KrbFailure& failure) {
    return {static_cast<int>(failure.code), failure.text, false};
}

Krb<Done> verify(const Kerberos& kerberos, const KrbKeytab& keytab, krb5_principal self,
                 KrbCredentials& credentials) {
    krb5_verify_init_creds_opt options;
    krb5_verify_init_creds_opt_init(&options);
    krb5_verify_init_creds_opt_set_ap_req_nofail(&options, 1);
    return kerberos.outcome(
        krb5_verify_init_creds(kerberos.get(), &credentials.get(), self, keytab.get(), nullptr, &options));
}

}  // namespace

class KerberosProof {
  public:
    static Accepted make() { return Accepted(); }
};

Expected<Accepted, KdcFailure> checkPassword(const AdOptions& options, KdcConversation& kdc,
                                             const std::string& account, const std::string& domain,
                                             const std::string& password) {
    Kerberos kerberos(options.domain, kdc);
    // A NUL would end the password early for the library.
    if (password.find('\0') != std::string::npos)
        return vorn::unexpected(refused(kerberos.failure(KRB5KDC_ERR_PREAUTH_FAILED)));
    const auto client = newPrincipal(kerberos, realmOf(domain), account);
    if (!client) return vorn::unexpected(refused(client.error()));
    const auto keytab = KrbKeytab::open(kerberos, options.account.keytab);
    const KrbPrincipal self = keytab ? ownName(kerberos, *keytab, options) : KrbPrincipal(kerberos.get());
    // What is wanted is a ticket for this host, to be checked with the keytab. A KDC of
    // the host's own realm gives it at once, without one for tickets before it.
    const bool atOnce = self.get() != nullptr && isInRealm(self.get(), realmOf(domain));
    const std::string service = atOnce ? nameWithoutRealm(kerberos, self.get()) : "";
    auto credentials = kerberos.firstCredentials(client->get(), [&](krb5_init_creds_context creds) {
        const krb5_error_code code =
            service.empty() ? 0 : krb5_init_creds_set_service(kerberos.get(), creds, service.c_str());
        return code != 0 ? code : krb5_init_creds_set_password(kerberos.get(), creds, password.c_str());
    });
    if (!credentials) {
        kerberos.levelRefusal(password);
        return vorn::unexpected(refused(credentials.error()));
    }
    if (!keytab) return vorn::unexpected(unverified(keytab.error()));
    if (self.get() == nullptr) return vorn::unexpected(unverified(kerberos.failure(KRB5_KT_NOTFOUND)));
    if (const auto verified = verify(kerberos, *keytab, self.get(), *credentials); !verified)
        return vorn::unexpected(unverified(verified.error()));
    return KerberosProof::make();
}

}  // namespace vexagent
