#include "agent/ad/net/check.h"

#include <cstdlib>
#include <ctime>
#include <fstream>

#include "agent/ad/ids.h"
#include "agent/ad/net/domain.h"
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
          m_tickets(options.transport != Transport::Gssapi
                        ? nullptr
                        : std::make_unique<Tickets>(
                              m_options, [this](const std::string&) { return &m_domain.controllers(); })),
          m_context{m_options, m_watchdog, m_tickets.get()},
          m_domain(m_context, options.domain, Domain::Kind::Domain) {}

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
    void ok(const std::string& text) { m_report += "ok: " + text + "\n"; }
    void wrong(const std::string& text, const std::string& action) {
        m_good = false;
        m_report += "wrong: " + text + "\n   do: " + action + "\n";
    }

    void keytab() {
        KdcConversation nobody([](const std::string&) { return nullptr; }, within(kTime));
        const Kerberos kerberos(m_options.domain, nobody);
        const KrbKeytab keytab(kerberos, m_options.keytab);
        const std::string join =
            "join the domain (adcli join, or realm join), or set ad.keytab to the keytab "
            "that was made then; the agent's user must be able to read it";
        if (!keytab.status().ok()) return wrong(keytab.status().text, join);
        const KrbPrincipal name(kerberos.get(), machineName(kerberos, keytab, m_options));
        if (name.get() == nullptr)
            return wrong("keytab " + m_options.keytab + " holds no name of the form HOST$@" +
                             realmOf(m_options.domain),
                         "compare domain.name with the output of klist -k, or set ad.principal");
        char* text = nullptr;
        krb5_unparse_name(kerberos.get(), name.get(), &text);
        ok("keytab " + m_options.keytab + " holds " + (text != nullptr ? text : "the machine's name"));
        krb5_free_unparsed_name(kerberos.get(), text);
    }

    void account() {
        const std::string& file = m_options.bindPasswordFile;
        std::string reason = "no password is in " + file;
        if (hasPassword(file, reason))
            ok("a password for " + m_options.bindName + " is in " + file);
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
        std::string reason;
        m_domain.locate(reason);
        const std::vector<Controllers::Choice> found = m_domain.controllers().order(now());
        if (found.empty()) {
            wrong(
                "no controllers of " + m_options.domain + " are found: " + reason,
                "let /etc/resolv.conf name the domain's DNS servers, or list the controllers in ad.servers");
            return false;
        }
        ok(std::to_string(found.size()) + " controllers " +
           (m_options.servers.empty() ? "found by DNS" : "listed in ad.servers"));
        bool any = false;
        for (const Controllers::Choice& controller : found) any = checkController(controller.peer) || any;
        return any;
    }

    bool checkController(const Peer& peer) {
        const Deadline deadline = within(kTime);
        const std::string name = "controller " + peer.host + " port " + std::to_string(peer.port);
        std::unique_ptr<Link> link;
        std::vector<Entry> entries;
        LdapStatus status = Link::openAnonymous(m_context, peer, deadline, link);
        if (status.ok())
            status = link->search({"", LDAP_SCOPE_BASE, "(objectClass=*)", {"currentTime"}}, deadline,
                                  [&](Entry&& entry) { entries.push_back(std::move(entry)); });
        if (!status.ok()) {
            wrong(name + " does not answer: " + status.text,
                  "see that it runs and that no firewall is between; with TLS, see that ad.tls.ca holds the "
                  "authority of its certificate, and that the certificate holds its name");
            return false;
        }
        ok(name + " answers");
        clock(name, entries.empty() ? 0 : timeOf(entries[0].first("currentTime")));
        return true;
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
        const Deadline deadline = within(kTime);
        const LdapStatus status =
            m_domain.run(deadline, [&](Domain::Lease& lease) { return lease->probe(deadline); });
        if (status.ok()) {
            ok("the domain lets the agent in");
            return true;
        }
        wrong("the domain does not let the agent in: " + status.text,
              m_options.transport == Transport::Gssapi
                  ? "join the domain again if the machine's password has changed; name controllers by "
                    "their DNS names, not by address; see that the clocks agree"
                  : "check ad.bind.name and its password");
        return false;
    }

    void domain() {
        std::shared_ptr<const DomainInfo> info;
        const LdapStatus status = m_domain.info(within(kTime), info);
        if (!status.ok() || info->sid.empty())
            return wrong("the controllers do not hold " + vorn::DN::dnFromDomain(m_options.domain),
                         "compare domain.name with the domain that the host has joined");
        ok("domain " + info->root + ", short name " + info->netbios + ", " + sidText(info->sid));
        if (!m_options.ids.fromSid) return;
        const Ids ids(m_options.ids, info->sid);
        if (ids.first())
            ok("ids made from SIDs begin at " + std::to_string(*ids.first()));
        else
            wrong("no ids can be made: the domain's slice lies beyond the largest id",
                  "lower ad.ids.first, ad.ids.slices or ad.ids.slice.size");
    }

    void checkZone(const std::string& zone) {
        std::vector<Entry> entries;
        const LdapStatus status =
            m_domain.search({zone, LDAP_SCOPE_BASE, "(objectClass=*)", {"1.1"}}, within(kTime), entries);
        if (status.ok() && !entries.empty()) return ok("zone " + zone + " is there");
        wrong("zone " + zone + " cannot be read: " + status.text,
              "set zone.dn to the DN of the zone, and let the machine's account read it");
    }

    const AdOptions& m_options;
    std::string& m_report;
    Watchdog m_watchdog;
    const std::unique_ptr<Tickets> m_tickets;
    const LinkContext m_context;
    Domain m_domain;
    bool m_good = true;
};

}  // namespace

bool checkDomain(const AdOptions& options, const std::string& zone, std::string& report) {
    return Check(options, report).run(zone);
}

}  // namespace vexagent
