// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/check.h"

#include <cstdlib>
#include <ctime>
#include <fstream>

#include "agent/ad/ids.h"
#include "agent/ad/net/domain.h"
#include "agent/ad/net/krb_profile.h"
#include "agent/ad/net/ldap_connector.h"
#include "agent/ad/net/principals.h"
#include "agent/ad/net/tls.h"
#include "agent/directory/identifiers.h"
#include "vorn/dn.h"
#include "vorn/own_file.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

constexpr milliseconds kTime{5000};  // for each step
constexpr long kMostSkew = 300;      // seconds that Kerberos tolerates

// Seconds since 1970 of "20261121150501.0Z"; 0 for other text.
std::time_t timeOf(std::string_view text) {
    std::tm parts{};
    const std::string copy(text);
    if (::strptime(copy.c_str(), "%Y%m%d%H%M%S", &parts) == nullptr) return 0;
    return ::timegm(&parts);
}

class Check {
  public:
    Check(const AdOptions& options, std::string& report)
        : m_options(options),
          m_report(report),
          m_watchdog(vorn::systemSteadyClock()),
          m_tickets(options.transport != Transport::Gssapi
                        ? nullptr
                        : std::make_unique<Tickets>(
                              m_options, [this](const std::string&) { return &m_domain.controllers(); })),
          m_connector(m_options, m_watchdog, vorn::systemSteadyClock(), m_tickets.get()),
          m_pages(vorn::systemSteadyClock()),
          m_context{m_options, m_connector, vorn::systemSteadyClock(), m_pages, [] { return 0.5; }},
          m_domain(m_context, {options.domain}) {}

    bool run(const std::string& zone) {
        if (m_options.transport == Transport::Gssapi)
            keytab();
        else
            account();
        tls();
        if (controllers() && letIn()) {
            domain();
            if (!zone.empty()) checkZone(zone);
        }
        return m_good;
    }

  private:
    Deadline soon() const { return m_context.within(kTime); }
    void ok(const std::string& text) { m_report += "ok: " + text + "\n"; }
    void wrong(const std::string& text, const std::string& action) {
        m_good = false;
        m_report += "wrong: " + text + "\n   do: " + action + "\n";
    }

    void keytab() {
        KdcConversation nobody([](const std::string&) { return nullptr; }, soon());
        const Kerberos kerberos(m_options.domain, nobody);
        const auto keytab = KrbKeytab::open(kerberos, m_options.account.keytab);
        if (!keytab)
            return wrong(keytab.error().text,
                         "join the domain (adcli join, or realm join), or set ad.keytab to the keytab "
                         "that was made then; the agent's user must be able to read it");
        const KrbPrincipal name = machineName(kerberos, *keytab, m_options);
        if (name.get() == nullptr)
            return wrong("keytab " + m_options.account.keytab + " holds no name of the form HOST$@" +
                             realmOf(m_options.domain),
                         "compare domain.name with the output of klist -k, or set ad.principal");
        char* text = nullptr;
        krb5_unparse_name(kerberos.get(), name.get(), &text);
        ok("keytab " + m_options.account.keytab + " holds " +
           (text != nullptr ? text : "the machine's name"));
        krb5_free_unparsed_name(kerberos.get(), text);
    }

    void account() {
        const std::string& file = m_options.account.bindPasswordFile;
        std::string reason = "no password is in " + file;
        if (hasPassword(file, reason))
            ok("a password for " + m_options.account.bindName + " is in " + file);
        else
            wrong(reason,
                  "put the service account's password into its first line: install -o vexagent -m 400 "
                  "/dev/null " +
                      file + ", then write it there");
        if (std::ifstream(m_options.tlsCa))
            ok("certificate authorities are in " + m_options.tlsCa);
        else
            wrong("no certificate authorities can be read from " + m_options.tlsCa, kHowToGetAuthority);
    }

    static bool hasPassword(const std::string& file, std::string& reason) {
        try {
            return vorn::readSecretLine(file).has_value();
        } catch (const vorn::OwnFileError& error) {
            reason = error.what();
            return false;
        }
    }

    void tls() {
        const std::string package = tlsPackage();
        ok("TLS comes from " + package + "; in slapd.conf, TLS before version 1.2 is refused by: " +
           (package == "GnuTLS" ? "TLSCipherSuite NORMAL:-VERS-TLS1.0:-VERS-TLS1.1" : "TLSProtocolMin 3.3"));
    }

    bool controllers() {
        const auto located = m_domain.locator().locate();
        const std::vector<Controllers::Choice> found = m_domain.controllers().order(m_context.clock.now());
        if (found.empty()) {
            wrong(
                "no controllers of " + m_options.domain + " are found: " + (located ? "" : located.error()),
                "let /etc/resolv.conf name the domain's DNS servers, or list the controllers in ad.servers");
            return false;
        }
        ok(std::to_string(found.size()) + " controllers " +
           (m_options.controllers.servers.empty() ? "found by DNS" : "listed in ad.servers"));
        bool any = false;
        for (const Controllers::Choice& controller : found) any = checkController(controller.peer) || any;
        return any;
    }

    bool checkController(const Peer& peer) {
        const std::string name = "controller " + peer.host + " port " + std::to_string(peer.port);
        const auto time = timeAt(peer);
        if (!time) {
            wrong(name + " does not answer: " + time.error().text,
                  "see that it runs and that no firewall is between; with TLS, see that ad.tls.ca holds the "
                  "authority of its certificate, and that the certificate holds its name");
            return false;
        }
        ok(name + " answers");
        clock(name, *time);
        return true;
    }

    // By a controller's own clock; 0 for one that does not tell.
    Linked<std::time_t> timeAt(const Peer& peer) {
        const Deadline deadline = soon();
        const auto link = m_connector.openAnonymous(peer, deadline);
        if (!link) return vorn::unexpected(link.error());
        std::time_t time = 0;
        const auto read = LinkReader(**link, m_pages, deadline)
                              .search({"", LDAP_SCOPE_BASE, "(objectClass=*)", {"currentTime"}},
                                      [&](Entry&& entry) { time = timeOf(entry.first("currentTime")); });
        if (!read) return vorn::unexpected(read.error());
        return time;
    }

    void clock(const std::string& name, std::time_t time) {
        if (time == 0)
            return wrong(name + " does not tell the time", "see whether it is a domain controller");
        const long skew = static_cast<long>(m_options.clock() - time);
        const std::string text = "this host's clock is " + std::to_string(std::labs(skew)) + " seconds " +
                                 (skew < 0 ? "behind" : "ahead of") + " that of " + name;
        if (std::labs(skew) > kMostSkew)
            wrong(text, "let this host take its time from the domain (chrony, systemd-timesyncd)");
        else
            ok(text);
    }

    bool letIn() {
        const Deadline deadline = soon();
        const auto in = m_domain.run(
            deadline, [&](Domain::Lease& lease) { return LinkReader(*lease, m_pages, deadline).probe(); });
        if (in) {
            ok("the domain lets the agent in");
            return true;
        }
        wrong("the domain does not let the agent in: " + in.error().text,
              m_options.transport == Transport::Gssapi
                  ? "join the domain again if the machine's password has changed; name controllers by "
                    "their DNS names, not by address; see that the clocks agree"
                  : "check ad.bind.name and its password");
        return false;
    }

    void domain() {
        const auto known = m_domain.info(soon());
        if (!known || (*known)->sid.empty())
            return wrong("the controllers do not hold " + vorn::DN::dnFromDomain(m_options.domain),
                         "compare domain.name with the domain that the host has joined");
        const DomainInfo& info = **known;
        ok("domain " + info.root + ", short name " + info.netbios + ", " + sidText(info.sid));
        if (!m_options.ids.fromSid) return;
        const Ids ids(m_options.ids, info.sid);
        if (ids.first())
            ok("ids made from SIDs begin at " + std::to_string(*ids.first()));
        else
            wrong("no ids can be made: the domain's slice lies beyond the largest id",
                  "lower ad.ids.first, ad.ids.slices or ad.ids.slice.size");
    }

    void checkZone(const std::string& zone) {
        bool there = false;
        const Deadline deadline = soon();
        const auto read = m_domain.run(deadline, [&](Domain::Lease& lease) {
            return LinkReader(*lease, m_pages, deadline)
                .search({zone, LDAP_SCOPE_BASE, "(objectClass=*)", {"1.1"}}, [&](Entry&&) { there = true; });
        });
        if (read && there) return ok("zone " + zone + " is there");
        wrong("zone " + zone + " cannot be read: " + (read ? "" : read.error().text),
              "set zone.dn to the DN of the zone, and let the machine's account read it");
    }

    const AdOptions& m_options;
    std::string& m_report;
    Watchdog m_watchdog;
    const std::unique_ptr<Tickets> m_tickets;
    LdapConnector m_connector;
    PageRule m_pages;
    const NetContext m_context;
    Domain m_domain;
    bool m_good = true;
};

}  // namespace

bool checkDomain(const AdOptions& options, const std::string& zone, std::string& report) {
    return Check(options, report).run(zone);
}

}  // namespace vexagent
