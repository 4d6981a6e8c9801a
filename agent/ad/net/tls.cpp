// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/tls.h"

#include <memory>
#include <mutex>

namespace vexagent {
namespace {

void useOnce(bool tls) {
    LDAP* ldap = nullptr;
    if (ldap_create(&ldap) != LDAP_SUCCESS) return;  // the link's own attempt tells why
    const int client = 0;
    if (tls) ldap_set_option(ldap, LDAP_OPT_X_TLS_NEWCTX, &client);
    ldap_unbind_ext(ldap, nullptr, nullptr);
}

// Where the library takes TLS from GnuTLS, its setting for the lowest version does
// nothing: that wants the versions among the ciphers, as OpenSSL does not.
bool refuseOldTls(LDAP* ldap) {
    if (tlsPackage() == "GnuTLS")
        return ldap_set_option(ldap, LDAP_OPT_X_TLS_CIPHER_SUITE,
                               "NORMAL:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2") == LDAP_OPT_SUCCESS;
    const int least = LDAP_OPT_X_TLS_PROTOCOL_TLS1_2;
    return ldap_set_option(ldap, LDAP_OPT_X_TLS_PROTOCOL_MIN, &least) == LDAP_OPT_SUCCESS;
}

}  // namespace

std::string tlsPackage() {
    char* package = nullptr;
    ldap_get_option(nullptr, LDAP_OPT_X_TLS_PACKAGE, &package);
    const std::unique_ptr<char, FreeMemory> owner(package);
    return package != nullptr ? package : "";
}

void prepareLibldap(bool tls) {
    static std::once_flag prepared;
    std::call_once(prepared, useOnce, tls);
}

std::optional<std::string> demandTls(LDAP* ldap, TlsContext& context, const std::string& authorities) {
    const int demand = LDAP_OPT_X_TLS_DEMAND;
    if (!refuseOldTls(ldap)) return "TLS before version 1.2 cannot be refused";
    if (ldap_set_option(ldap, LDAP_OPT_X_TLS_CACERTFILE, authorities.c_str()) != LDAP_OPT_SUCCESS ||
        ldap_set_option(ldap, LDAP_OPT_X_TLS_REQUIRE_CERT, &demand) != LDAP_OPT_SUCCESS ||
        !context.give(ldap, authorities))
        return "the certificates in \"" + authorities + "\" (ad.tls.ca) cannot be read";
    return std::nullopt;
}

}  // namespace vexagent
