// SPDX-License-Identifier: Apache-2.0
// The machine's own tickets.
#pragma once

#include <ctime>
#include <mutex>
#include <shared_mutex>
#include <string>

#include "agent/ad/net/kerberos.h"
#include "agent/ad/net/own_login.h"
#include "agent/ad/options.h"

namespace vexagent {

// Whether a KDC has refused the machine itself, and would again.
bool isRefusalOfMachine(krb5_error_code code);

// When the machine's ticket is taken anew: when a fifth of its life is left.
class TicketLife {
  public:
    void begin(std::time_t start, std::time_t end) {
        m_start = start;
        m_end = end;
    }
    bool isDue(std::time_t time) const;
    // Whether it serves still, for long enough.
    bool serves(std::time_t time) const { return time + kLeastLeft < m_end; }

    static constexpr std::time_t kLeastLeft = 60;  // GSSAPI gets none with less than this

  private:
    std::time_t m_start = 0;
    std::time_t m_end = 0;
};

// Keeps the machine's tickets in a credentials cache in memory, where GSSAPI finds
// them. Safe for several threads.
class Tickets {
  public:
    // Points this process's GSSAPI at the cache and at settings of the agent's
    // own, through the environment: made before other threads are.
    Tickets(const AdOptions& options, KdcConversation::ControllersOf controllersOf,
            KdcCarrier carry = carryByTcp);

    // Sees to it that the cache holds a ticket for the LDAP service of a host of the domain,
    // and tells when it ends. Renews the machine's ticket before it ends.
    Krb<std::time_t> prepare(const std::string& domain, const std::string& host, const Deadline& deadline);

    // Held while GSSAPI reads the cache.
    [[nodiscard]] std::shared_lock<std::shared_timed_mutex> lockForUse() { return std::shared_lock(m_mutex); }

  private:
    Krb<Done> logIn(Kerberos& kerberos, KdcConversation& kdc, const Deadline& deadline);
    Krb<Done> renew(Kerberos& kerberos);
    Krb<std::time_t> serviceTicket(Kerberos& kerberos, const std::string& domain, const std::string& host);
    void tellRefusal(const std::string& reason) const;

    const AdOptions& m_options;
    const KdcConversation::ControllersOf m_controllersOf;
    const KdcCarrier m_carry;
    OwnLogin m_own;
    std::shared_timed_mutex m_mutex;  // guards the cache's content
    TicketLife m_life;                // of the machine's ticket; guarded by m_mutex
};

}  // namespace vexagent
