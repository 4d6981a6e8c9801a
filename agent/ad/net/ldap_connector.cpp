// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/ldap_connector.h"

#include "agent/ad/net/sockets.h"
#include "agent/directory/log.h"
#include "vorn/own_file.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

constexpr milliseconds kTurnTime{1000};  // for another attempt of the agent's to be let in

// Whatever it is, nothing comes of this controller.
LinkFailure lostWith(const Peer& peer, LinkFailure failure) {
    if (failure.lost) return failure;
    return {failure.code, peer.host + ": " + failure.text, true};
}

}  // namespace

// -------------------------------------------------------------------- opening

Linked<std::unique_ptr<LdapLink>> LdapConnector::connect(const Peer& peer, const Deadline& deadline) {
    auto link = std::make_unique<LdapLink>(m_context, peer);
    if (const auto connected = link->connect(deadline); !connected)
        return vorn::unexpected(connected.error());
    return link;
}

Linked<std::unique_ptr<Link>> LdapConnector::openAnonymous(const Peer& peer, const Deadline& deadline) {
    auto link = connect(peer, deadline);
    if (!link) return vorn::unexpected(link.error());
    return std::move(*link);
}

Linked<std::unique_ptr<Link>> LdapConnector::open(const std::string& domain, const Peer& peer,
                                                  const Deadline& deadline) {
    const bool byTicket = m_context.options.transport == Transport::Gssapi;
    if (!byTicket && !mayShowPassword(peer)) return vorn::unexpected(barred());
    auto link = connect(peer, deadline);
    if (!link) return vorn::unexpected(lostWith(peer, link.error()));
    const auto in = byTicket ? introduceHost(**link, domain, deadline) : introduceService(**link, deadline);
    if (!in)
        return vorn::unexpected(in.error().lost ? in.error()
                                                : (*link)->lost(in.error().code, in.error().text));
    (*link)->noteAnswerNow();
    return std::move(*link);
}

Expected<std::vector<SrvRecord>, std::string> LdapConnector::findService(const std::string& name) {
    return querySrv(name);
}

void LdapConnector::learnAddresses(const std::string& host, const Deadline& deadline) {
    vexagent::learnAddresses(host, deadline);
}

// ---------------------------------------------------------------- introduction

Linked<Done> LdapConnector::introduceHost(LdapLink& link, const std::string& domain,
                                          const Deadline& deadline) {
    const std::string& host = link.peer().host;
    const auto end = m_tickets->prepare(domain, host, deadline);
    if (!end) {
        LinkFailure failure =
            link.lost(LDAP_LOCAL_ERROR, "no ticket for ldap/" + host + ": " + end.error().text);
        failure.barred = end.error().barred;
        return vorn::unexpected(failure);
    }
    const auto lock = m_tickets->lockForUse();
    return link.bindWithTicket(*end, deadline);
}

bool LdapConnector::mayShowPassword(const Peer& peer) {
    m_own.use(stampOf(m_context.options.account.bindPasswordFile));
    return m_own.mayTry(peer, m_context.clock.now());
}

Linked<Done> LdapConnector::introduceService(LdapLink& link, const Deadline& deadline) {
    const vorn::SteadyClock& clock = m_context.clock;
    const auto turn = m_own.takeTurn(deadline.atMost(kTurnTime));
    if (!mayShowPassword(link.peer())) return vorn::unexpected(barred());
    auto shown = showPassword(link, deadline);
    if (shown && m_own.accepted(link.peer(), clock.now()))
        AGENT_LOG(vorn::Logger::kInfo, "the domain lets %s in again", serviceName().c_str());
    // What the library says itself, with a code below 0, is no refusal.
    if (shown || shown.error().lost || shown.error().code < 0) return shown;
    // Not the code: nobody's password but the agent's own was wrong.
    const std::string& reason = shown.error().text;
    if (m_own.refused(link.peer(), clock.now())) tellRefusal(reason);
    LinkFailure refusal = link.lost(LDAP_UNAVAILABLE, "as " + serviceName() + ": " + reason);
    refusal.barred = true;
    return vorn::unexpected(refusal);
}

Linked<Done> LdapConnector::showPassword(LdapLink& link, const Deadline& deadline) {
    const AdOptions& options = m_context.options;
    std::optional<vorn::Secret> password;
    try {
        password = vorn::readSecretLine(options.account.bindPasswordFile);
        if (!password)
            return vorn::unexpected(
                link.lost(LDAP_LOCAL_ERROR,
                          "no password in " + options.account.bindPasswordFile + " (ad.bind.password.file)"));
    } catch (const vorn::OwnFileError& error) {
        return vorn::unexpected(
            link.lost(LDAP_LOCAL_ERROR, std::string(error.what()) + " (ad.bind.password.file)"));
    }
    return link.bind(options.account.bindName, password->text(), deadline);
}

// The service account is refused: nobody is asked for a while.
LinkFailure LdapConnector::barred() const {
    LinkFailure failure{LDAP_UNAVAILABLE, "the domain refuses " + serviceName() + "; it is tried again later",
                        true};
    failure.barred = true;
    return failure;
}

std::string LdapConnector::serviceName() const {
    return m_context.options.account.bindName + " (ad.bind.name)";
}

void LdapConnector::tellRefusal(const std::string& reason) const {
    AGENT_LOG(
        vorn::Logger::kError,
        "the domain refuses %s: %s. Put its password into the first line of %s (ad.bind.password.file), "
        "and see that the account is neither locked nor disabled; what is there now is tried again "
        "after 5 seconds, and then ever more rarely, up to every 15 minutes",
        serviceName().c_str(), vorn::printable(reason).c_str(),
        m_context.options.account.bindPasswordFile.c_str());
}

}  // namespace vexagent
