// SPDX-License-Identifier: Apache-2.0
// How the agent comes to a connection, and is let in on it.
#pragma once

#include <memory>
#include <string>

#include "agent/ad/net/ldap_link.h"
#include "agent/ad/net/own_login.h"
#include "agent/ad/net/tickets.h"

namespace vexagent {

class LdapConnector : public Connector {
  public:
    // tickets is null without GSSAPI. All of it outlives it and its connections.
    LdapConnector(const AdOptions& options, Watchdog& watchdog, const vorn::SteadyClock& clock,
                  Tickets* tickets)
        : m_context{options, watchdog, clock, m_tls}, m_tickets(tickets) {}

    Linked<std::unique_ptr<Link>> open(const std::string& domain, const Peer& peer,
                                       const Deadline& deadline) override;
    Linked<std::unique_ptr<Link>> openAnonymous(const Peer& peer, const Deadline& deadline) override;
    Expected<std::vector<SrvRecord>, std::string> findService(const std::string& name) override;
    void learnAddresses(const std::string& host, const Deadline& deadline) override;

  private:
    Linked<std::unique_ptr<LdapLink>> connect(const Peer& peer, const Deadline& deadline);
    Linked<Done> introduceHost(LdapLink& link, const std::string& domain, const Deadline& deadline);
    Linked<Done> introduceService(LdapLink& link, const Deadline& deadline);
    Linked<Done> showPassword(LdapLink& link, const Deadline& deadline);
    bool mayShowPassword(const Peer& peer);
    LinkFailure barred() const;
    std::string serviceName() const;
    void tellRefusal(const std::string& reason) const;

    TlsContext m_tls;
    const LdapContext m_context;
    Tickets* const m_tickets;
    OwnLogin m_own;  // of the service account
};

}  // namespace vexagent
