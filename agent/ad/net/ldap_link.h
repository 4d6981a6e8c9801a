// SPDX-License-Identifier: Apache-2.0
// A connection by libldap.
#pragma once

#include <ldap.h>

#include <ctime>
#include <memory>
#include <string>

#include "agent/ad/net/link.h"
#include "agent/ad/net/tls_context.h"
#include "agent/ad/net/watchdog.h"
#include "agent/ad/options.h"
#include "vorn/descriptor.h"

namespace vexagent {

// What connections share. All of it outlives them.
struct LdapContext {
    const AdOptions& options;
    Watchdog& watchdog;
    const vorn::SteadyClock& clock;
    TlsContext& tls;
};

struct FreeLdapMessage {
    void operator()(LDAPMessage* message) const { ldap_msgfree(message); }
};
using LdapMessage = std::unique_ptr<LDAPMessage, FreeLdapMessage>;

class LdapLink : public Link {
  public:
    LdapLink(const LdapContext& context, const Peer& peer) : Link(peer), m_context(context) {}
    ~LdapLink() override;

    Linked<int> start(const LdapSearch& search, const std::string& cookie, int pageSize) override;
    Linked<Event> next(int id, const Deadline& deadline) override;
    Expected<Accepted, LdapFailure> checkPassword(const std::string& dn, const std::string& password,
                                                  const Deadline& deadline) override;
    Expected<Done, LdapFailure> changePassword(const std::string& dn, const vorn::Secret& from,
                                               const vorn::Secret& to, const Deadline& deadline) override;
    bool looksUsable() const override;

    // ---- For whoever opens it.

    // Connects to the peer, with TLS where the settings say so.
    Linked<Done> connect(const Deadline& deadline);
    // Introduces somebody by name and password. Good only when the controller's answer to
    // this bind, and no other message, says so.
    Linked<Done> bind(const std::string& name, const std::string& password, const Deadline& deadline);
    // Introduces the host by the ticket that GSSAPI finds, which ends then.
    Linked<Done> bindWithTicket(std::time_t end, const Deadline& deadline);
    // A failure of the connection itself.
    LinkFailure lost(int code, const std::string& reason);
    void noteAnswerNow() { noteAnswer(m_context.clock.now()); }

  private:
    struct Unbind {
        void operator()(LDAP* ldap) const { ldap_unbind_ext(ldap, nullptr, nullptr); }
    };

    Linked<Done> take(vorn::Descriptor socket);
    Linked<Done> startTls(const Deadline& deadline);
    Linked<Done> askForTls(const Deadline& deadline);
    Linked<LdapMessage> waitFor(int id, const Deadline& deadline);
    Linked<Done> waitForResult(int id, int type, const Deadline& deadline);
    Linked<Event> readEntry(LDAPMessage* message);
    Linked<Event> readEnd(LDAPMessage* message);
    LinkFailure failure(int code);
    LinkFailure failureOf(int code, const std::string& reason);
    std::string failureText(int code);

    const LdapContext& m_context;
    vorn::Descriptor m_socket{-1};  // the library's socket, open as long as the connection is
    std::unique_ptr<LDAP, Unbind> m_ldap;
    std::time_t m_end = 0;  // when the ticket ends; 0 for never
};

}  // namespace vexagent
