// SPDX-License-Identifier: Apache-2.0
// Whose tickets are whose.
#pragma once

#include <string>
#include <string_view>

#include "agent/ad/net/kerberos.h"
#include "agent/ad/options.h"

namespace vexagent {

// "first/second@REALM", or without a second.
Krb<KrbPrincipal> newPrincipal(const Kerberos& kerberos, const std::string& realm, std::string_view first,
                               std::string_view second = {});

bool isInRealm(krb5_const_principal principal, const std::string& realm);

// Empty when there is no memory for it.
std::string nameWithoutRealm(const Kerberos& kerberos, krb5_const_principal principal);

// The name of the machine in the keytab: the setting's, or the first name in the
// realm that ends with "$". Null when there is none.
KrbPrincipal machineName(const Kerberos& kerberos, const KrbKeytab& keytab, const AdOptions& options);

// What tickets for this host are made out to: its first "host/..." in the keytab, or
// the machine's name. Null when there is neither.
KrbPrincipal ownName(const Kerberos& kerberos, const KrbKeytab& keytab, const AdOptions& options);

}  // namespace vexagent
