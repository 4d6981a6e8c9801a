// The machine's own tickets, and the check of people's passwords.
#pragma once

#include <ctime>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>

#include "agent/ad/net/kerberos.h"
#include "agent/ad/net/own_login.h"
#include "agent/ad/options.h"
#include "agent/directory/verdict.h"

namespace vexagent {

// The name of the machine in the keytab: the setting's, or the first name in the
// realm that ends with "$". Null when there is none; the caller frees it.
krb5_principal machineName(const Kerberos& kerberos, const KrbKeytab& keytab, const AdOptions& options);

// Keeps the machine's tickets in a credentials cache in memory, where GSSAPI finds
// them. Safe for several threads.
class Tickets {
  public:
    // Points this process's GSSAPI at the cache and at settings of the agent's
    // own, through the environment: made before other threads are.
    Tickets(const AdOptions& options, KdcConversation::ControllersOf controllersOf);

    // Sees to it that the cache holds a ticket for the LDAP service of a host, and
    // tells when it ends. Renews the machine's ticket before it ends.
    KrbStatus prepare(const std::string& domain, const std::string& host, const Deadline& deadline,
                      std::time_t& end);

    // Held while GSSAPI reads the cache.
    std::shared_lock<std::shared_timed_mutex> lockForUse() { return std::shared_lock(m_mutex); }

  private:
    KrbStatus logIn(Kerberos& kerberos, KdcConversation& kdc, krb5_ccache cache);
    KrbStatus renew(Kerberos& kerberos, krb5_ccache cache);
    KrbStatus serviceTicket(Kerberos& kerberos, krb5_ccache cache, const std::string& domain,
                            const std::string& host, std::time_t& end);

    const AdOptions& m_options;
    const KdcConversation::ControllersOf m_controllersOf;
    OwnLogin m_own;
    std::shared_timed_mutex m_mutex;  // guards the cache's content
    std::time_t m_start = 0;          // of the machine's ticket; guarded by m_mutex
    std::time_t m_end = 0;
};

// Whether the password is the account's: asks the KDC once and verifies with the
// keytab that the answer came from the domain. verified is false when the KDC has
// accepted the password but could not be verified. A status that is good proves
// nothing yet.
struct PasswordCheck {
    KrbStatus status;
    bool verified = true;
    std::optional<Accepted> accepted{};
};
PasswordCheck checkPassword(const AdOptions& options, KdcConversation& kdc, const std::string& account,
                            const std::string& domain, const std::string& password);

}  // namespace vexagent
