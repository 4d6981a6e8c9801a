// SPDX-License-Identifier: Apache-2.0
// One connection to a domain controller, and who opens it.
//
// What a domain does with its controllers (which one, how long, when another one) knows
// connections by these two only, so that it is tested without a socket.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "agent/ad/net/peer.h"
#include "agent/ad/net/srv.h"
#include "agent/ad/network.h"
#include "vorn/secret.h"

namespace vexagent {

// With what only this folder wants to know. A failure that is lost, of a connection: it
// answers nothing else.
struct LinkFailure : LdapFailure {
    using LdapFailure::LdapFailure;
    explicit LinkFailure(LdapFailure failure) : LdapFailure(std::move(failure)) {}

    bool again = false;   // lost, but asked in another way the same controller may answer
    bool barred = false;  // lost, because the agent itself is not let in: the controller is there
};

template <class T>
using Linked = Expected<T, LinkFailure>;

// The same to those outside this folder.
template <class T>
Expected<T, LdapFailure> outside(Linked<T>&& answer) {
    if (!answer) return vorn::unexpected(LdapFailure(answer.error()));
    return std::move(*answer);
}

// The end of the results, or of a page of them.
struct PageEnd {
    std::string cookie;  // of the next page; empty after the last
};

// For one thread at a time.
class Link {
  public:
    explicit Link(Peer peer) : m_peer(std::move(peer)) {}
    virtual ~Link() = default;
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    // Asks for a page of the results, an empty cookie meaning the first one; for all of
    // them where the page's size is 0. What it gives names the operation; several may be
    // under way. LinkReader does it as is best.
    virtual Linked<int> start(const LdapSearch& search, const std::string& cookie, int pageSize) = 0;

    // What comes next of an operation.
    using Event = std::variant<Entry, PageEnd>;
    virtual Linked<Event> next(int id, const Deadline& deadline) = 0;

    // Whether this is the password of the DN: asks once. Only on a connection with TLS.
    virtual Expected<Accepted, LdapFailure> checkPassword(const std::string& dn, const std::string& password,
                                                          const Deadline& deadline) = 0;

    // Takes one password of the DN away and adds another, both as the attribute unicodePwd has
    // them: asks once. Only on a connection with TLS, and once the first one was right there.
    virtual Expected<Done, LdapFailure> changePassword(const std::string& dn, const vorn::Secret& from,
                                                       const vorn::Secret& to, const Deadline& deadline) = 0;

    // Whether an idle connection may still be used, as far as can be told without asking.
    virtual bool looksUsable() const = 0;

    // Asked from time to time while an answer is late: false ends the wait.
    using StillThere = std::function<bool(const Deadline&)>;
    void setPatience(StillThere stillThere) { m_stillThere = std::move(stillThere); }

    const Peer& peer() const { return m_peer; }
    // When the controller last said anything here.
    Moment answeredAt() const { return m_answeredAt; }
    // Answers that nobody reads are on their way: it is of no more use.
    void giveUp() { m_lost = true; }

    static constexpr int kPageSize = 1000;

  protected:
    void noteAnswer(Moment now) { m_answeredAt = now; }
    bool isLost() const { return m_lost; }
    const StillThere& stillThere() const { return m_stillThere; }

  private:
    const Peer m_peer;
    StillThere m_stillThere;
    Moment m_answeredAt{};
    bool m_lost = false;
};

// The way to the controllers of all domains. Safe for several threads.
class Connector {
  public:
    virtual ~Connector() = default;

    // A connection that has introduced itself as the agent. domain is the one that the
    // controller belongs to. Every failure is lost.
    virtual Linked<std::unique_ptr<Link>> open(const std::string& domain, const Peer& peer,
                                               const Deadline& deadline) = 0;

    // One that nobody has introduced himself on: it can read the root DSE only. With TLS, if
    // that is how the agent talks to controllers.
    virtual Linked<std::unique_ptr<Link>> openAnonymous(const Peer& peer, const Deadline& deadline) = 0;

    // The hosts of a service, by DNS; the reason when there are none. Takes some seconds
    // where DNS does not answer.
    virtual Expected<std::vector<SrvRecord>, std::string> findService(const std::string& name) = 0;

    // Has the addresses of a host known for times without DNS.
    virtual void learnAddresses(const std::string& host, const Deadline& deadline) = 0;
};

}  // namespace vexagent
