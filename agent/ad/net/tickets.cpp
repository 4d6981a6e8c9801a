// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/tickets.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <new>
#include <stdexcept>

#include "agent/ad/net/krb_profile.h"
#include "agent/ad/net/principals.h"
#include "agent/directory/log.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

constexpr char kCache[] = "MEMORY:vexagent";
constexpr int kRestOfLife = 5;

// Puts the library's settings into a file that has no name.
void setEnvironment(const std::string& domain) {
    const std::string text = krb5Settings(domain);
    const int file = ::memfd_create("krb5.conf", MFD_CLOEXEC);  // kept open as long as the process runs
    if (file < 0 || ::write(file, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        throw std::runtime_error("the settings for Kerberos cannot be kept in memory");
    ::setenv("KRB5_CONFIG", ("/proc/self/fd/" + std::to_string(file)).c_str(), 1);
    ::setenv("KRB5CCNAME", kCache, 1);
    ::unsetenv("KRB5_CLIENT_KTNAME");  // GSSAPI would fetch tickets by itself
}

class Cache {
  public:
    explicit Cache(const Kerberos& kerberos) : m_kerberos(kerberos) {
        if (krb5_cc_resolve(kerberos.get(), kCache, &m_cache) != 0) throw std::bad_alloc();
    }
    ~Cache() { krb5_cc_close(m_kerberos.get(), m_cache); }
    Cache(const Cache&) = delete;
    Cache& operator=(const Cache&) = delete;
    krb5_ccache get() const { return m_cache; }

    // In the place of what it held.
    Krb<Done> hold(krb5_creds& credentials) {
        const krb5_error_code code = krb5_cc_initialize(m_kerberos.get(), m_cache, credentials.client);
        return code == 0 ? add(credentials) : m_kerberos.outcome(code);
    }
    Krb<Done> add(krb5_creds& credentials) {
        return m_kerberos.outcome(krb5_cc_store_cred(m_kerberos.get(), m_cache, &credentials));
    }

  private:
    const Kerberos& m_kerberos;
    krb5_ccache m_cache = nullptr;
};

}  // namespace

bool isRefusalOfMachine(krb5_error_code code) {
    switch (code) {
        case KRB5KDC_ERR_PREAUTH_FAILED:
        case KRB5KRB_AP_ERR_BAD_INTEGRITY:
        case KRB5KDC_ERR_CLIENT_REVOKED:
        case KRB5KDC_ERR_C_PRINCIPAL_UNKNOWN:
        case KRB5KDC_ERR_KEY_EXP:
        case KRB5KDC_ERR_NAME_EXP:
        case KRB5KDC_ERR_POLICY:
            return true;
        default:
            return false;
    }
}

bool TicketLife::isDue(std::time_t time) const {
    return time + std::max(kLeastLeft, (m_end - m_start) / kRestOfLife) >= m_end;
}

Tickets::Tickets(const AdOptions& options, KdcConversation::ControllersOf controllersOf, KdcCarrier carry)
    : m_options(options), m_controllersOf(std::move(controllersOf)), m_carry(std::move(carry)) {
    setEnvironment(options.domain);
}

// -------------------------------------------------------------- the machine's

Krb<Done> Tickets::renew(Kerberos& kerberos) {
    const auto keytab = KrbKeytab::open(kerberos, m_options.account.keytab);
    if (!keytab) return vorn::unexpected(keytab.error());
    const KrbPrincipal name = machineName(kerberos, *keytab, m_options);
    if (name.get() == nullptr)
        return vorn::unexpected(KrbFailure{KRB5_KT_NOTFOUND, "keytab " + m_options.account.keytab +
                                                                 ": no name of the form HOST$@" +
                                                                 realmOf(m_options.domain)});
    auto credentials = kerberos.firstCredentials(name.get(), [&](krb5_init_creds_context context) {
        return krb5_init_creds_set_keytab(kerberos.get(), context, keytab->get());
    });
    if (!credentials) {
        KrbFailure failure = credentials.error();
        if (failure.code == KRB5KDC_ERR_PREAUTH_FAILED || failure.code == KRB5KRB_AP_ERR_BAD_INTEGRITY)
            failure.text = "keytab " + m_options.account.keytab +
                           ": the machine's key is another one by now: " + failure.text;
        return vorn::unexpected(failure);
    }
    if (auto held = Cache(kerberos).hold(credentials->get()); !held) return held;
    m_life.begin(m_options.clock(), credentials->get().times.endtime);
    return Done();
}

// The machine's ticket, asked for as long as its key may be shown.
Krb<Done> Tickets::logIn(Kerberos& kerberos, KdcConversation& kdc, const Deadline& deadline) {
    const vorn::SteadyClock& clock = deadline.clock();
    m_own.use(stampOf(m_options.account.keytab));
    kdc.askOnly([&](const Peer& peer) { return m_own.mayTry(peer, clock.now()); });
    auto renewed = renew(kerberos);
    kdc.askOnly(nullptr);
    if (renewed && m_own.accepted(kdc.answered(), clock.now()))
        AGENT_LOG(vorn::Logger::kInfo, "the domain lets the machine in again");
    if (renewed || !isRefusalOfMachine(renewed.error().code)) return renewed;
    KrbFailure refusal = renewed.error();
    refusal.barred = true;
    if (m_own.refused(kdc.answered(), clock.now())) tellRefusal(refusal.text);
    return vorn::unexpected(refusal);
}

void Tickets::tellRefusal(const std::string& reason) const {
    AGENT_LOG(vorn::Logger::kError,
              "the domain refuses the key in %s: %s. Join the domain anew (adcli join, or realm join), or "
              "see that the machine's account is neither locked nor disabled; what is there now is tried "
              "again after 5 seconds, and then ever more rarely, up to every 15 minutes",
              m_options.account.keytab.c_str(), reason.c_str());
}

// ----------------------------------------------------------------- a service's

Krb<std::time_t> Tickets::serviceTicket(Kerberos& kerberos, const std::string& domain,
                                        const std::string& host) {
    krb5_context context = kerberos.get();
    Cache cache(kerberos);
    KrbPrincipal client(context);
    krb5_error_code code = krb5_cc_get_principal(context, cache.get(), client.place());
    if (code != 0) return vorn::unexpected(kerberos.failure(code));
    const auto service = newPrincipal(kerberos, realmOf(domain), "ldap", host);
    if (!service) return vorn::unexpected(service.error());
    krb5_creds wanted{};
    wanted.client = client.get();
    wanted.server = service->get();
    krb5_creds* ticket = nullptr;
    code = krb5_get_credentials(context, 0, cache.get(), &wanted, &ticket);
    if (code != 0) return vorn::unexpected(kerberos.failure(code));
    const auto freeTicket = [context](krb5_creds* value) { krb5_free_creds(context, value); };
    const std::unique_ptr<krb5_creds, decltype(freeTicket)> owner(ticket, freeTicket);
    const std::time_t end = ticket->times.endtime;
    if (vorn::equalsIgnoreCase(domain, m_options.domain)) return end;
    // GSSAPI takes a host outside the domain for one of the machine's own realm.
    const auto alias = newPrincipal(kerberos, realmOf(m_options.domain), "ldap", host);
    if (!alias) return end;
    krb5_creds copy = *ticket;
    copy.server = alias->get();
    return cache.add(copy).map([end](Done) { return end; });
}

Krb<std::time_t> Tickets::prepare(const std::string& domain, const std::string& host,
                                  const Deadline& deadline) {
    const std::unique_lock lock(m_mutex, deadline.left());
    if (!lock.owns_lock())
        return vorn::unexpected(KrbFailure{KRB5_KDC_UNREACH, "no ticket could be had in time"});
    KdcConversation kdc(m_controllersOf, deadline, m_carry);
    Kerberos kerberos(m_options.domain, kdc);
    const std::time_t time = m_options.clock();
    if (m_life.isDue(time)) {
        const auto loggedIn = logIn(kerberos, kdc, deadline);
        // An old one serves as long as it is valid.
        if (!loggedIn && !m_life.serves(time)) return vorn::unexpected(loggedIn.error());
    }
    return serviceTicket(kerberos, domain, host);
}

}  // namespace vexagent
