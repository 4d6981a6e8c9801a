// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/principals.h"

#include "agent/ad/net/krb_profile.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

std::string_view textOf(const krb5_data& data) {
    return {data.data, data.length};
}

}  // namespace

Krb<KrbPrincipal> newPrincipal(const Kerberos& kerberos, const std::string& realm, std::string_view first,
                               std::string_view second) {
    const auto length = [](std::string_view text) { return static_cast<unsigned>(text.size()); };
    KrbPrincipal principal(kerberos.get());
    // A length of zero ends the components.
    const krb5_error_code code =
        krb5_build_principal_ext(kerberos.get(), principal.place(), length(realm), realm.data(),
                                 length(first), first.data(), length(second), second.data(), 0);
    if (code != 0) return vorn::unexpected(kerberos.failure(code));
    return principal;
}

bool isInRealm(krb5_const_principal principal, const std::string& realm) {
    return textOf(principal->realm) == realm;
}

std::string nameWithoutRealm(const Kerberos& kerberos, krb5_const_principal principal) {
    char* text = nullptr;
    if (krb5_unparse_name_flags(kerberos.get(), principal, KRB5_PRINCIPAL_UNPARSE_NO_REALM, &text) != 0)
        return {};
    std::string name = text;
    krb5_free_unparsed_name(kerberos.get(), text);
    return name;
}

KrbPrincipal machineName(const Kerberos& kerberos, const KrbKeytab& keytab, const AdOptions& options) {
    if (!options.account.principal.empty()) {
        KrbPrincipal name(kerberos.get());
        krb5_parse_name(kerberos.get(), options.account.principal.c_str(), name.place());
        return name;
    }
    const std::string realm = realmOf(options.domain);
    return keytab.find([&](krb5_const_principal principal) {
        return principal->length == 1 && isInRealm(principal, realm) &&
               textOf(principal->data[0]).ends_with('$');
    });
}

KrbPrincipal ownName(const Kerberos& kerberos, const KrbKeytab& keytab, const AdOptions& options) {
    const std::string realm = realmOf(options.domain);
    KrbPrincipal host = keytab.find([&](krb5_const_principal principal) {
        return principal->length == 2 && isInRealm(principal, realm) &&
               vorn::equalsIgnoreCase(textOf(principal->data[0]), "host");
    });
    return host.get() != nullptr ? std::move(host) : machineName(kerberos, keytab, options);
}

}  // namespace vexagent
