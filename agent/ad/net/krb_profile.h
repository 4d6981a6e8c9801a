// SPDX-License-Identifier: Apache-2.0
// The Kerberos library's settings, without the host's krb5.conf.
#pragma once

#include <krb5.h>

#include <string>

namespace vexagent {

// A context of the library with settings of the agent's own; the caller frees it. Throws
// std::bad_alloc.
krb5_context newKrbContext(const std::string& domain);

// The same settings for the contexts that GSSAPI makes by itself: text in the
// syntax of krb5.conf. No KDC is named in it, so what is not in the credentials
// cache is not fetched behind the agent's back.
std::string krb5Settings(const std::string& domain);

// "EXAMPLE.COM" for "example.com".
std::string realmOf(const std::string& domain);

}  // namespace vexagent
