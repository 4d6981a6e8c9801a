// One LDAP connection to a domain controller.
#pragma once

#include <ldap.h>

#include <atomic>
#include <ctime>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/ad/net/own_login.h"
#include "agent/ad/net/sockets.h"
#include "agent/ad/net/tickets.h"
#include "agent/ad/net/tls_context.h"
#include "agent/ad/net/watchdog.h"
#include "agent/ad/network.h"
#include "agent/ad/options.h"
#include "agent/directory/directory.h"

namespace vexagent {

// How an LDAP operation ended: a result code of the library, and its text, which is for
// the log.
struct LdapStatus {
    int code = LDAP_SUCCESS;
    std::string text{};
    bool lost = false;    // the controller did not answer as one should: another may
    bool again = false;   // lost, but asked in another way the same one may answer
    std::string told{};   // what a client is told; empty: what the code says
    bool barred = false;  // lost, because the agent itself is not let in: the controller is there
    bool ok() const { return code == LDAP_SUCCESS; }
};

// The same as a failure that left this folder; not of a status that is good.
LdapFailure failureOf(const LdapStatus& status);
LdapStatus statusOf(const LdapFailure& failure);

// The request has used up its own time: nobody else's failure.
LdapStatus timeIsUp();

// Whether an object is not there, or not in this directory.
bool isMissing(const LdapStatus& status);

// The same in the terms of the client interface.
Result resultOf(const LdapStatus& status);

// What libldap, and so slapd, takes TLS from: "GnuTLS" or "OpenSSL".
std::string tlsPackage();

// What the connections of an agent share. Everything outlives them.
struct LinkContext {
    const AdOptions& options;
    Watchdog& watchdog;
    Tickets* tickets;                                  // null without GSSAPI
    mutable std::atomic<Moment> pagesUntil{Moment{}};  // until when Results asks for pages at once
    mutable OwnLogin ownLogin{};                       // of the service account
    mutable TlsContext tls{};
};

class Results;

// For one thread at a time. After a status that is lost it answers nothing else.
class Link {
  public:
    static constexpr int kPageSize = 1000;

    // A connection to the peer that has introduced itself as the agent. domain is
    // the one that the controller belongs to.
    static LdapStatus open(const LinkContext& context, const std::string& domain, const Peer& peer,
                           const Deadline& deadline, std::unique_ptr<Link>& link);

    // One that nobody has introduced himself on: it can read the root DSE only. With
    // TLS, if that is how the agent talks to controllers.
    static LdapStatus openAnonymous(const LinkContext& context, const Peer& peer, const Deadline& deadline,
                                    std::unique_ptr<Link>& link);

    ~Link();
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    // Whether this is the password of the DN: asks once. Only on a connection with TLS.
    Expected<Accepted, LdapFailure> checkPassword(const std::string& dn, const std::string& password,
                                                  const Deadline& deadline);

    // Asks for a page of the results, an empty cookie meaning the first one; for all
    // of them where the page's size is 0. id names the operation; several may be
    // under way. Results does it as is best.
    LdapStatus start(const LdapSearch& search, const std::string& cookie, int& id, int pageSize);

    // What comes next of an operation: an entry, or its end with the cookie of the
    // next page, which is empty after the last.
    enum class Event { Entry, End };
    LdapStatus next(int id, const Deadline& deadline, Event& event, Entry& entry, std::string& cookie);

    // A whole search.
    using Visitor = std::function<void(Entry&&)>;
    LdapStatus search(const LdapSearch& search, const Deadline& deadline, const Visitor& visit);

    // Several searches with as many under way as is of use. A base that is not there
    // finds nothing; missing becomes what was said of the last one.
    LdapStatus searchAll(const std::vector<LdapSearch>& searches, const Deadline& deadline,
                         const Visitor& visit, std::optional<LdapFailure>* missing = nullptr);

    // Whether the controller answers.
    LdapStatus probe(const Deadline& deadline);

    // Whether an idle connection may still be used, as far as can be told without
    // asking.
    bool looksUsable(std::time_t time) const;

    // Asked from time to time while an answer is late: false ends the wait.
    using StillThere = std::function<bool(const Deadline&)>;
    void setPatience(StillThere stillThere) { m_stillThere = std::move(stillThere); }

    const Peer& peer() const { return m_peer; }
    // When the controller last said anything here.
    Moment answeredAt() const { return m_answeredAt; }

  private:
    struct Unbind {
        void operator()(LDAP* ldap) const { ldap_unbind_ext(ldap, nullptr, nullptr); }
    };

    Link(const LinkContext& context, const Peer& peer) : m_context(context), m_peer(peer) {}

    LdapStatus connect(const Deadline& deadline);
    LdapStatus startTls(const Deadline& deadline);
    LdapStatus bind(const std::string& name, const std::string& password, const Deadline& deadline);
    LdapStatus introduce(const std::string& domain, const Deadline& deadline);
    LdapStatus bindWithTicket(const std::string& domain, const Deadline& deadline);
    LdapStatus bindAsService(const Deadline& deadline);
    LdapStatus showPassword(const Deadline& deadline);
    LdapStatus waitFor(int id, const Deadline& deadline, LDAPMessage*& message);
    LdapStatus readAll(Results& results, const Deadline& deadline, const Visitor& visit);
    LdapStatus readEntry(LDAPMessage* message, Entry& entry);
    LdapStatus readEnd(LDAPMessage* message, std::string& cookie);
    LdapStatus lost(int code, const std::string& text);
    LdapStatus failure(int code);
    std::string failureText(int code);

    const LinkContext& m_context;
    const Peer m_peer;
    vorn::Descriptor m_socket{-1};  // the library's socket, open as long as the connection is
    std::unique_ptr<LDAP, Unbind> m_ldap;
    StillThere m_stillThere;
    Moment m_answeredAt{};
    std::time_t m_end = 0;  // when the ticket ends; 0 for never
    bool m_lost = false;
};

}  // namespace vexagent
