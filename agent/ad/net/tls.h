// SPDX-License-Identifier: Apache-2.0
// What is libldap's: its memory, and TLS as it does it.
#pragma once

#include <ldap.h>

#include <optional>
#include <string>

#include "agent/ad/net/tls_context.h"

namespace vexagent {

// For the owners of what libldap has handed over.
struct FreeMemory {
    void operator()(void* memory) const { ldap_memfree(memory); }
};

// What libldap, and so slapd, takes TLS from: "GnuTLS" or "OpenSSL".
std::string tlsPackage();

// libldap, and what it has TLS from, set themselves up at their first use: one thread's,
// before others come. Done once, whoever calls it.
void prepareLibldap(bool tls);

// Has a connection's TLS be of version 1.2 at least, with a certificate that one of the
// authorities in that file vouches for. What is wrong, if it cannot.
std::optional<std::string> demandTls(LDAP* ldap, TlsContext& context, const std::string& authorities);

}  // namespace vexagent
