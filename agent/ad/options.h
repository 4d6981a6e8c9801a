// SPDX-License-Identifier: Apache-2.0
// What an Active Directory domain is served with.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "vorn/clock.h"

namespace vexagent {

// How connections to controllers are protected, and who the agent is to them.
enum class Transport {
    Gssapi,    // the machine's keytab; SASL GSSAPI with signing and sealing
    StartTls,  // a service account; TLS on the LDAP port
    Ldaps      // a service account; TLS from the first byte
};

// How ids are made for accounts without numbers of their own. See ids.h.
struct IdOptions {
    bool fromSid = false;
    std::uint32_t first = 200'000;      // the lowest id
    std::uint32_t slices = 10'000;      // domains are spread over so many slices
    std::uint32_t sliceSize = 200'000;  // ids of one slice
    std::uint32_t least = 1;            // number that hosts are shown at all, made or not
    std::string home = "/home/%u";      // for accounts without one; %u is the login name
};

// The agent's own memory of password checks.
struct AuthCacheOptions {
    bool enabled = false;
    std::string file;
    std::chrono::seconds maxAge{7 * 86'400};
    int attempts = 5;  // wrong ones in a row, after which a record is not asked any more
};

// How the file of the setting ad.tls.ca is come by.
inline constexpr char kHowToGetAuthority[] =
    "copy the certificate of the authority that signed the controllers' certificates to this host, as PEM: a "
    "Windows authority writes it with \"certutil -ca.cert ca.cer\" (and \"openssl x509 -inform der\" makes "
    "it "
    "PEM), Samba keeps it as private/tls/ca.pem; a list of public authorities would let in whoever DNS names";

// Which controllers there are.
struct ControllerOptions {
    std::vector<std::string> servers;  // "host" or "host:port"; empty: by DNS
    std::string site;
};

// Who the agent is to them: the machine with its keytab, or a service account.
struct AccountOptions {
    std::string keytab = "/etc/krb5.keytab";
    std::string principal;  // empty: the machine's, as the keytab has it
    std::string bindName;
    std::string bindPasswordFile;
};

struct AdOptions {
    std::string domain;                        // the joined domain's DNS name
    std::vector<std::string> loginAttributes;  // see NameRules
    ControllerOptions controllers{};
    Transport transport = Transport::Gssapi;
    AccountOptions account{};
    std::string tlsCa;
    std::chrono::milliseconds timeout{8000};  // for one request, failover included
    std::size_t connections = 8;              // to one controller, idle ones included
    std::size_t mostGroups = 100'000;         // that the memberships of one answer go through
    IdOptions ids{};
    AuthCacheOptions authCache{};
    vorn::Clock clock = vorn::systemTime;
};

}  // namespace vexagent
