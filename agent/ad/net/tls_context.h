// SPDX-License-Identifier: Apache-2.0
// What the connections to controllers have in common for TLS: the authorities, read once.
//
// libldap makes such a context from the options of a connection, and with GnuTLS as it is
// in Debian 12 eight kilobytes of each are lost. So the first connection's serves them
// all, until the file with the authorities is another. Safe for several threads.
#pragma once

#include <ldap.h>
#include <sys/stat.h>

#include <memory>
#include <mutex>
#include <string>

namespace vexagent {

class TlsContext {
  public:
    // Gives the context to a connection that has its options for TLS, the same as those
    // before it. False when the file cannot be read.
    bool give(LDAP* ldap, const std::string& authorities);

  private:
    struct Close {
        void operator()(LDAP* ldap) const { ldap_unbind_ext(ldap, nullptr, nullptr); }
    };

    bool remember(LDAP* ldap);

    std::mutex m_mutex;
    struct stat m_file {};                    // that it was made from; guarded by m_mutex, as all below
    std::unique_ptr<LDAP, Close> m_keeper{};  // is never connected
    void* m_context = nullptr;
};

}  // namespace vexagent
